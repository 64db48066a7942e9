"""The installation from source without systemd, by the commands of docs/install.md."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["PALINODE_BIN"]).parent

# Runs the script $3 as root of a copy of this machine, which ends with it; $1 is an empty folder,
# $2 the checkout.
IN_A_COPY = """
set -e
mount -t tmpfs -o mode=755 tmpfs "$1"
cover() {
  mkdir -p "$3/upper" "$3/work" "$2"
  mount -t overlay -o "lowerdir=$1,upperdir=$3/upper,workdir=$3/work" overlay "$2"
}
mkdir "$1/root"
cover / "$1/root" "$1/machine"
for folder in run tmp; do mount -t tmpfs -o mode=1777 tmpfs "$1/root/$folder"; done
cover "$2" "$1/root$2" "$1/checkout"
mount --rbind /dev "$1/root/dev"
mount -t proc proc "$1/root/proc"
exec env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \\
  chroot "$1/root" sh -c "$3"
"""

# What an earlier installation on this machine left in the copy.
CLEAN_UP = """
rm -rf /lumen
for user in palinode palinode-pcp lumen-resolver lumen-web; do userdel "$user" 2>/dev/null || true; done
groupdel lumen 2>/dev/null || true
"""

LOOK = """
lumend >/tmp/log & lumend=$!
for try in $(seq 100); do ! lumenctl service list >/dev/null 2>&1 || break; sleep 0.1; done
grep -q '^upnp: started' /tmp/log
stat -c '%n %U %a' /lumen /lumen/etc /lumen/etc/services /lumen/etc/upnp /lumen/run /lumen/store \\
  /lumen/store/upnp /lumen/store/upnpm /lumen/store/pcp /lumen/store/web
getent group lumen | cut -d: -f1
kill $lumend
wait $lumend
cat /tmp/log >&2
"""

LEFT = """
find / -maxdepth 1 -name lumen
find /etc /usr /var/lib '(' -name '*lumen*' -o -name '*palinode*' ')' -newer /tmp/begin
getent passwd palinode palinode-pcp lumen-resolver lumen-web || true
getent group lumen || true
"""


def commands_after(heading):
    """The first block of commands after a text of docs/install.md."""
    text = (TOP / "docs" / "install.md").read_text(encoding="utf-8")
    block = re.search(r"```sh\n(.*?)```", text[text.index(heading):], re.DOTALL).group(1)
    # The words of the build and of the last command are other tests'.
    lines = [line for line in block.splitlines()
             if not line.startswith(("sudo scripts/build", "sudo lumend"))]
    return re.sub(r"\bbuild\b", BUILD.name, "\n".join(lines))


class SourceInstallationTest(unittest.TestCase):
    def in_a_copy(self, script):
        with tempfile.TemporaryDirectory(prefix="palinode-copy-") as folder:
            return subprocess.run(
                ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--propagation",
                 "private", "sh", "-c", IN_A_COPY, "sh", folder, str(TOP), script],
                stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120, check=False)

    # Promise [source-install]: From source, without systemd, the commands of `docs/install.md` make
    # the users, the stores with their owner and a lumend that starts the gateway, and remove it all
    # again.
    def test_the_documented_commands_make_it_and_remove_it(self):
        script = "\n".join([
            "set -e", "umask 077", 'sudo() { "$@"; }', f"cd {TOP}", "touch /tmp/begin",
            CLEAN_UP, "exec 3>&1 >&2",
            commands_after("## From source, without systemd"), "exec >&3", LOOK, "echo removed",
            commands_after("To remove it all"), LEFT])
        done = self.in_a_copy(script)
        self.assertEqual((done.returncode, done.stdout), (
            0, "/lumen root 755\n/lumen/etc root 755\n/lumen/etc/services root 755\n"
            "/lumen/etc/upnp root 755\n/lumen/run root 755\n/lumen/store root 755\n"
            "/lumen/store/upnp palinode 700\n/lumen/store/upnpm palinode 700\n"
            "/lumen/store/pcp palinode-pcp 700\n/lumen/store/web lumen-web 700\nlumen\nremoved\n"),
            done.stderr)
        self.assertNotIn("Permission denied", done.stderr)
        self.assertNotIn("is missing or belongs to another user", done.stderr)
        self.assertNotIn("The stores need their owner", done.stderr)


class StoreOwnerTest(unittest.TestCase):
    # Promise [source-stores]: An installation that cannot give the stores to their users
    # prints the commands that do, to be pasted into a shell.
    def test_the_remaining_steps_without_the_user_can_be_pasted_into_a_shell(self):
        with tempfile.TemporaryDirectory(prefix="palinode-chown-") as folder:
            # In place of the real one: it is called, and fails.
            chown = pathlib.Path(folder) / "chown"
            chown.write_text(f'#!/bin/sh\nfor a; do echo "[$a]"; done >>{folder}/calls\nexit 1\n')
            chown.chmod(0o755)
            environment = {"PATH": f"{folder}:{os.environ['PATH']}"}
            script = TOP / "packaging" / "own-stores.cmake"
            said = subprocess.run(["cmake", "-P", script], env=environment, capture_output=True,
                                  text=True, check=True).stderr
            commands = [line for line in said.splitlines() if "chown " in line]
            subprocess.run(["sh", "-c", "\n".join(commands)], env=environment, check=False)
            calls = (pathlib.Path(folder) / "calls").read_text()
        each_once = ("[palinode:palinode]\n[/lumen/store/upnp]\n[/lumen/store/upnpm]\n"
                     "[palinode-pcp:palinode-pcp]\n[/lumen/store/pcp]\n"
                     "[lumen-web:lumen-web]\n[/lumen/store/web]\n")
        self.assertEqual(calls, 2 * each_once, said)


if __name__ == "__main__":
    unittest.main()
