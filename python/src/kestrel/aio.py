"""The asyncio connection: ``k = await kestrel.aio.connect(host, port)``, then ``await k.module.create("m", 10, 1)``."""
import asyncio
import socket
from typing import Any, Awaitable, Callable, List, Optional, Sequence, TypeVar

import numpy.typing as npt

from . import _control
from ._reply import Progress, Reply
from ._session import RETRY, SETTLE, Session, bytes_of, read_line, short_read, tree_texts
from ._sockets import shut
from ._tree import TREE_LINE, Command, Group, parse_tree
from ._typed import AsyncCommands
from .errors import ConnectionLost, means_lost

BLOCK = 1 << 16
DATA_WAIT = 30.0  # seconds
T = TypeVar("T")


class AsyncConnection(AsyncCommands):
    """As kestrel.Connection, with methods to await. A call that is cancelled stops the server's command, where the
    server's control socket can be had, or closes the connection."""

    def __init__(self, sock: socket.socket, control: str) -> None:
        super().__init__(Group("", ""), self._run)
        self._session = Session()
        self._lock = asyncio.Lock()
        self._sock: Optional[socket.socket] = sock
        self._listener: Optional[socket.socket] = None
        self._control = control

    async def _start(self) -> None:
        await self._finish_reply()  # the first prompt
        self._group = parse_tree(tree_texts(await self._exchange(TREE_LINE)))

    async def command(self, line: str) -> Reply:
        """Runs any line, and gives all that the server answers."""
        reply: Reply = await self._locked(line, None)
        return reply

    @property
    def notes(self) -> List[str]:
        return self._session.reader.reply.notes

    @property
    def on_progress(self) -> Optional[Callable[[Progress], None]]:
        return self._session.reader.on_progress

    @on_progress.setter
    def on_progress(self, callback: Optional[Callable[[Progress], None]]) -> None:
        self._session.reader.on_progress = callback

    async def read(self, handle: int, box: Optional[Sequence[int]] = None, dtype: Any = None, *, dtc: bool = False,
                   ) -> npt.NDArray[Any]:
        """A box (x, y, t, width, height, frames; None: all) of a handle as an array [t, y, x]."""
        if box is None:
            sizes = [int((await self.command(f"unif-get-n{axis} {int(handle)}")).result or 0) for axis in "xyt"]
            box = (0, 0, 0, *sizes)
        element = (await self.command(f"unif-get-type {int(handle)}")).result if dtype is None else 0
        line, array = read_line(handle, box, int(element or 0), dtype, "dtc" if dtc else "")
        async with self._lock:
            try:
                if self._listener is None:
                    await self._guarded(self._listen())
                got = await self._guarded(self._receive(line, bytes_of(array)))
            except BaseException:
                self._forget_listener()  # where the server's connection may still wait
                raise
            self._session.end(line, None)
        if got < array.nbytes:
            raise short_read(got, array.nbytes)
        return array

    def disconnect(self) -> None:
        """Closes the connection. A call that waits for the server gets ConnectionLost."""
        if self._sock is None:
            return
        shut(self._sock)
        if not self._lock.locked():  # else who waits closes: the loop would not tell it of a socket that is closed
            self._close()

    async def __aenter__(self) -> "AsyncConnection":
        return self

    async def __aexit__(self, *_: Any) -> None:
        self.disconnect()

    # ---- how it works

    def _run(self, command: Command, line: str) -> Awaitable[Any]:
        return self._locked(line, command)

    async def _locked(self, line: str, command: Optional[Command]) -> Any:
        async with self._lock:
            await self._guarded(self._exchange(line))
            return self._session.end(line, command)

    def _close(self) -> None:
        sock, self._sock = self._sock, None
        if sock is not None:
            sock.close()
        self._forget_listener()

    def _forget_listener(self) -> None:
        listener, self._listener = self._listener, None
        if listener is not None:
            listener.close()

    def _open(self) -> socket.socket:
        if self._sock is None:
            raise ConnectionLost("the connection is closed")
        return self._sock

    async def _guarded(self, action: Awaitable[T]) -> T:
        try:
            return await action
        except BaseException as error:
            if isinstance(error, Exception) and (means_lost(error) or self._sock is None):
                self._close()
                if not isinstance(error, ConnectionLost):
                    raise ConnectionLost(f"the connection is lost: {error}") from error
            elif isinstance(error, asyncio.CancelledError) or not self._session.reader.at_prompt:
                await self._stop_and_drain()
            raise

    async def _exchange(self, line: str) -> Reply:
        await asyncio.get_running_loop().sock_sendall(self._open(), self._session.begin(line))
        return await self._finish_reply()

    async def _finish_reply(self) -> Reply:
        reader = self._session.reader
        while not reader.certain:
            if reader.asked:
                await asyncio.get_running_loop().sock_sendall(self._open(), RETRY)
                reader.asked = False
            wait = asyncio.get_running_loop().sock_recv(self._open(), BLOCK)
            try:
                data = await (_within(SETTLE, wait) if reader.at_prompt else wait)
            except asyncio.TimeoutError:
                break
            if not data:
                self._close()
                raise ConnectionLost("the server closed the connection")
            reader.feed(data)
        return reader.finish()

    async def _stop_and_drain(self) -> None:
        try:
            loop = asyncio.get_running_loop()
            own = self._open().getsockname()
            await loop.run_in_executor(None, _control.stop, self._control, own)
            await loop.sock_sendall(self._open(), self._session.begin_again())  # bytes may have been dropped
            for _ in range(_control.STOPS):
                try:
                    await _within(_control.PATIENCE / _control.STOPS, self._finish_reply())
                    return
                except asyncio.TimeoutError:  # the server had not begun the line when it was stopped
                    self._forget_listener()
                    await loop.run_in_executor(None, _control.stop, self._control, own)
            self._close()
        except (OSError, asyncio.CancelledError):
            self._close()

    async def _listen(self) -> None:
        self._listener = socket.create_server((self._open().getsockname()[0], 0), backlog=1)
        self._listener.setblocking(False)
        line = f"port {self._listener.getsockname()[1]}"
        await self._exchange(line)
        self._session.end(line, None)

    async def _receive(self, line: str, into: memoryview) -> int:
        assert self._listener is not None
        host = self._open().getpeername()[0]
        taking = asyncio.ensure_future(self._take_box(self._listener, host, into))
        try:
            reply = await self._exchange(line)
            if reply.errors and not taking.done():
                return 0
            return await _within(DATA_WAIT, taking)
        finally:
            taking.cancel()

    @staticmethod
    async def _take_box(listener: socket.socket, host: str, into: memoryview) -> int:
        loop = asyncio.get_running_loop()
        connection, address = await loop.sock_accept(listener)
        while address[0] != host:  # what others have to say is not looked at
            connection.close()
            connection, address = await loop.sock_accept(listener)
        with connection:
            connection.setblocking(False)
            got = 0
            while got < len(into):
                count = await loop.sock_recv_into(connection, into[got:])
                if count == 0:
                    break
                got += count
            return got


async def _within(seconds: float, action: Awaitable[T]) -> T:
    """What asyncio.wait_for does; but the one of Python before 3.12 loses a cancellation that comes when the action
    ends."""
    task = asyncio.ensure_future(action)
    try:
        await asyncio.wait({task}, timeout=seconds)
        if task.done():
            return task.result()
        raise asyncio.TimeoutError
    finally:
        if task.cancel():
            await asyncio.wait({task})


async def connect(host: str = "localhost", port: int = 1972, *, timeout: float = 10.0,
                  control: Optional[str] = None) -> AsyncConnection:
    """A session of the server there."""
    loop = asyncio.get_running_loop()
    address = (await loop.getaddrinfo(host, port, family=socket.AF_INET, type=socket.SOCK_STREAM))[0][4]
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        sock.setblocking(False)
        await _within(timeout, loop.sock_connect(sock, address))
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection = AsyncConnection(sock, control or _control.usual_path(port))
        await _within(timeout, connection._start())
        return connection
    except BaseException:
        sock.close()
        raise
