"""A real FTP server on loopback for the tests, which can be told to be slow, to refuse and to die."""
import threading

import pytest
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler, ThrottledDTPHandler
from pyftpdlib.ioloop import IOLoop
from pyftpdlib.servers import FTPServer


class FtpServer(threading.Thread):
    """A server with the user `probe` and the password `s3cret word`; `die_after` bytes it cuts the connections.

    It takes at most `rate` bytes a second (0: as they come) and allows what `perm` says.
    """

    def __init__(self, folder, die_after=None, rate=0, perm="elradfmw"):
        super().__init__(daemon=True)

        class Dtp(ThrottledDTPHandler):
            read_limit = rate

            def handle_read(self):
                super().handle_read()
                if die_after is not None and self.tot_bytes_received > die_after:
                    self.cmd_channel.close()

            handle_read_event = handle_read

        class Handler(FTPHandler):
            authorizer = DummyAuthorizer()
            dtp_handler = Dtp

        Handler.authorizer.add_user("probe", "s3cret word", str(folder), perm=perm)
        self.server = FTPServer(("127.0.0.1", 0), Handler, ioloop=IOLoop())  # two may run at once
        self.address = "127.0.0.1:%d" % self.server.socket.getsockname()[1]

    def run(self):
        self.server.serve_forever(timeout=0.05, handle_exit=False)

    def stop(self):
        self.server.close_all()


@pytest.fixture
def ftp(tmp_path):
    running = []

    def begin(**how):
        folder = tmp_path / "remote"
        folder.mkdir(exist_ok=True)
        running.append(FtpServer(folder, **how))
        running[-1].start()
        return running[-1].address, folder

    yield begin
    for server in running:
        server.stop()


LOGIN = "user 'probe' password 's3cret word'"
