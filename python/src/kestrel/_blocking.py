"""The blocking connection."""
import socket
import threading
from typing import Any, Callable, List, Optional, Sequence

import numpy.typing as npt

from . import _control
from ._reply import Progress, Reply
from ._session import RETRY, SETTLE, Session, bytes_of, read_line, short_read, tree_texts
from ._sockets import accept_from, readable, shut
from ._tree import TREE_LINE, Command, Group, parse_tree
from ._typed import Commands
from .errors import ConnectionLost, means_lost

BLOCK = 1 << 16
DATA_WAIT = 30.0  # seconds without a byte of a box


class Connection(Commands):
    """A session of a server. Its methods are the server's commands: ``k.module.create("m", 10, 1)``.

    A command that prints "!" lines raises CommandError; the others return the command's result, or what it printed when
    it has none. ``notes`` are the "#" lines of the last command. ``on_progress``, when set, is called with each report
    of progress. ^C stops the server's command, where the server is this machine's and its control socket can be had,
    and raises KeyboardInterrupt when the prompt has come back; otherwise it closes the connection.
    """

    def __init__(self, host: str, port: int, timeout: Optional[float], control: Optional[str]) -> None:
        super().__init__(Group("", ""), self._run)
        self._session = Session()
        self._lock = threading.RLock()
        self._replying = False
        self._listener: Optional[socket.socket] = None
        self._control = control or _control.usual_path(port)
        self._where = f"{host}:{port}"
        self._sock: Optional[socket.socket] = socket.create_connection((host, port), timeout)
        try:
            self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._finish_reply()  # the first prompt
            self._group = parse_tree(tree_texts(self._exchange(TREE_LINE)))
            self._sock.settimeout(None)
        except BaseException:
            self.disconnect()
            raise

    # ---- what users call

    def command(self, line: str) -> Reply:
        """Runs any line, and gives all that the server answers."""
        reply: Reply = self._locked(line, None)
        return reply

    def _size(self, handle: int, axis: str) -> int:
        return int(self.command(f"unif-get-n{axis} {int(handle)}").result or 0)

    @property
    def notes(self) -> List[str]:
        return self._session.reader.reply.notes

    @property
    def on_progress(self) -> Optional[Callable[[Progress], None]]:
        return self._session.reader.on_progress

    @on_progress.setter
    def on_progress(self, callback: Optional[Callable[[Progress], None]]) -> None:
        self._session.reader.on_progress = callback

    def read(self, handle: int, box: Optional[Sequence[int]] = None, dtype: Any = None, *, dtc: bool = False,
             ) -> npt.NDArray[Any]:
        """A box (x, y, t, width, height, frames; None: all) of a handle as an array [t, y, x].

        Without a dtype the handle's own elements come; float32, float64 and uint32 are converted to by the server.
        ``dtc`` applies the handle's dead-time correction.
        """
        with self._lock:
            if box is None:
                box = (0, 0, 0, *(self._size(handle, axis) for axis in "xyt"))
            element = self.command(f"unif-get-type {int(handle)}").result if dtype is None else 0
            line, array = read_line(handle, box, int(element or 0), dtype, "dtc" if dtc else "")
            try:
                if self._listener is None:
                    self._listen()
                got = self._guarded(lambda: self._receive(line, bytes_of(array)))
            except BaseException:
                self._forget_listener()  # where the server's connection may still wait
                raise
            self._session.end(line, None)
            if got < array.nbytes:
                raise short_read(got, array.nbytes)
            return array

    def disconnect(self) -> None:
        """Closes the connection. Handles and variables of the session go with it; a thread that waits for a command
        gets ConnectionLost."""
        sock, self._sock = self._sock, None
        if sock is not None:
            shut(sock)
            sock.close()
        self._forget_listener()

    def __enter__(self) -> "Connection":
        return self

    def __exit__(self, *_: Any) -> None:
        self.disconnect()

    def __repr__(self) -> str:
        return f"<kestrel connection {'closed' if self._sock is None else self._where}>"

    # ---- how it works

    def _run(self, command: Command, line: str) -> Any:
        return self._locked(line, command)

    def _locked(self, line: str, command: Optional[Command]) -> Any:
        with self._lock:
            self._guarded(lambda: self._exchange(line))
            return self._session.end(line, command)

    def _open(self) -> socket.socket:
        if self._sock is None:
            raise ConnectionLost("the connection is closed")
        return self._sock

    def _guarded(self, action: Callable[[], Any]) -> Any:
        """The action; one that ends in the middle of a reply leaves the session at its prompt, or closes it."""
        if self._replying:
            raise RuntimeError("a progress callback cannot run commands of the connection that calls it")
        try:
            self._replying = True
            return action()
        except BaseException as error:
            if isinstance(error, Exception) and (means_lost(error) or self._sock is None):
                self.disconnect()
                if not isinstance(error, ConnectionLost):
                    raise ConnectionLost(f"the connection is lost: {error}") from error
            elif isinstance(error, KeyboardInterrupt) or not self._session.reader.at_prompt:
                self._stop_and_drain()
            raise
        finally:
            self._replying = False

    def _exchange(self, line: str) -> Reply:
        self._open().sendall(self._session.begin(line))
        return self._finish_reply()

    def _finish_reply(self) -> Reply:
        while not self._complete():
            self._take_block()
        return self._session.reader.finish()

    def _complete(self) -> bool:
        reader = self._session.reader
        if reader.asked:
            self._open().sendall(RETRY)
            reader.asked = False
        return reader.certain or (reader.at_prompt and not readable(SETTLE, self._open()))

    def _take_block(self) -> None:
        data = self._open().recv(BLOCK)
        if not data:
            self.disconnect()
            raise ConnectionLost("the server closed the connection")
        self._session.reader.feed(data)

    def _stop_and_drain(self) -> None:
        try:
            _control.stop(self._control, self._open().getsockname())
            self._open().settimeout(_control.PATIENCE / _control.STOPS)
            self._open().sendall(self._session.begin_again())  # of the reply, bytes may have been dropped
            for _ in range(_control.STOPS):
                try:
                    self._finish_reply()
                    self._open().settimeout(None)
                    return
                except socket.timeout:  # the server had not begun the line when it was stopped
                    self._forget_listener()
                    _control.stop(self._control, self._open().getsockname())
            self.disconnect()
        except (OSError, KeyboardInterrupt):
            self.disconnect()

    # ---- the data channel

    def _listen(self) -> None:
        self._listener = socket.create_server((self._open().getsockname()[0], 0), backlog=1)
        self.command(f"port {self._listener.getsockname()[1]}")

    def _forget_listener(self) -> None:
        listener, self._listener = self._listener, None
        if listener is not None:
            listener.close()

    def _receive(self, line: str, into: memoryview) -> int:
        """Sends the line and takes the bytes that come over the data channel: how many came."""
        assert self._listener is not None
        sock = self._open()
        sock.sendall(self._session.begin(line))
        connection = None
        while connection is None:
            whole = self._complete()  # what is refused comes without a connection, the rest has made it before
            if self._listener in readable(0 if whole else None, self._listener, sock):
                connection = accept_from(self._listener, sock.getpeername()[0])
            elif whole:
                return 0
            else:
                self._take_block()
        got = self._take_box(connection, into)
        self._finish_reply()
        return got

    @staticmethod
    def _take_box(connection: socket.socket, into: memoryview) -> int:
        with connection:
            connection.settimeout(DATA_WAIT)
            got = 0
            while got < len(into):
                count = connection.recv_into(into[got:])
                if count == 0:
                    break
                got += count
            return got


def connect(host: str = "localhost", port: int = 1972, *, timeout: Optional[float] = 10.0,
            control: Optional[str] = None) -> Connection:
    """A session of the server there. ``timeout`` is that of connecting; ``control`` the server's control socket, where
    it is not at its usual place."""
    return Connection(host, port, timeout, control)
