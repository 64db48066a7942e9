"""What ends with a `with` block."""

import contextlib


class Closing(contextlib.AbstractContextManager):
    """Its `close` is called when the `with` block ends."""

    def __exit__(self, *_):
        self.close()
