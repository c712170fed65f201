# SPDX-License-Identifier: Apache-2.0
"""run-tests [--all] PART [NAME]: the work of ./test once the machine is set up; see ./test --help."""

import concurrent.futures
import os
import pathlib
import sys

import checks
import memory
from preset import Preset
from tally import Tally, quietly

# The parts of a chain run one after the other. The board's tests run in parallel to the rest, so that no
# processor is idle during the last program of a build. On a new machine the board's packages are fetched
# meanwhile: "setup" waits for them, as all but the unit tests need some.
CHAINS = (("host-asan", "setup", "checks", "host", "host-tsan"), ("board",))
PARTS = {"all": [link for chain in CHAINS for link in chain], "unit": ("host-asan", "host-tsan")}


def main(arguments):
    os.chdir(memory.ROOT)
    everything = arguments[0] == "--all"
    part, *name = arguments[1 if everything else 0:]
    tally = Tally()
    passed = memory.Memory(pathlib.Path("build/passed.json"), forgetful=everything)

    def run(chain):
        for link in chain:
            if link not in PARTS.get(part, (part, "setup")):
                continue
            if link == "setup":
                quietly(["tools/setup"])
            elif link == "checks":
                checks.run(checks.OF_SOURCES, tally, passed)
            else:
                Preset(link, tally, passed).run(*name)

    with concurrent.futures.ThreadPoolExecutor(len(CHAINS)) as pool:
        list(pool.map(run, CHAINS))
    if part == "all":
        checks.run(checks.OF_BUILDS, tally, passed)
    return 0 if tally.close() else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
