"""A minute of traffic of every kind. scripts/soak does the same for an hour."""

import os
import unittest

from support.router_case import RouterCase
from support.soak import Soak

SEED = int(os.environ.get("PALINODE_SEED", "1"))
WARM_UP, SECONDS = 20, 40


class SoakTest(RouterCase):
    # Promise [no-leak]: After traffic of every kind, good and bad, the gateway, lumend and the
    # resolver are the same processes, with as many descriptors and as much allocated memory as
    # before it.
    def test_a_minute_of_traffic_leaks_nothing(self):
        print(f"PALINODE_SEED={SEED}")
        with Soak(self.router, SEED) as soak:
            soak.warm_up(WARM_UP)
            soak.work(SECONDS)
            print(soak.report())
            self.assertEqual(soak.complaints(), [])
        self.assertEqual(self.router.stop(), 0)


if __name__ == "__main__":
    unittest.main()
