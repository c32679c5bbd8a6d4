"""Workers that fit for a private broker, and what a test looks for there."""
import shutil
import tempfile

import broker
from kestrel_session import WAIT, Process, wait_until

WORKER = str(broker.BUILD / "kestrel-worker")


class Site(broker.Broker):
    """A broker in a folder of its own, whose keys begin with "t:"; `site` is what programs call it."""

    def __init__(self):
        super().__init__(tempfile.mkdtemp(prefix="kb-"))  # a socket's path must be short
        self.site += "#t"

    def close(self):
        super().close()
        shutil.rmtree(self.folder)

    def keys(self):
        return sorted(key.decode() for key in self("KEYS", "*"))

    def job_key(self, what="job"):
        """The key of the job that is under way, or nothing."""
        return next((key for key in self.keys() if ":fit:" in key and key.endswith(":" + what)), None)

    def fit_stream(self):
        """The stream of blocks, as soon as it is there."""
        return wait_until(lambda: next((key for key in self.keys() if ":fits:" in key and key.count(":") == 2), None),
                          "stream of blocks")


class Worker(Process):
    def __init__(self, scratch, site, **how):
        super().__init__(scratch, site, program=WORKER, **how)
        self.wait_stdout("# Worker .* at ")

    def kill(self):
        self.process.kill()
        self.process.wait(WAIT)
