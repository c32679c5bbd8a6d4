"""What both connections do with their sockets."""
import select
import socket
from typing import List, Optional


def readable(seconds: Optional[float], *socks: socket.socket) -> List[socket.socket]:
    """Those that can be read within so many seconds (None: as long as it takes). Their numbers may be of any size."""
    poll = select.poll()
    by_number = {sock.fileno(): sock for sock in socks}
    for number in by_number:
        poll.register(number, select.POLLIN)
    return [by_number[number] for number, _ in poll.poll(None if seconds is None else seconds * 1000)]


def accept_from(listener: socket.socket, host: str) -> Optional[socket.socket]:
    """The next connection, if it is one of this host: what others have to say is not looked at."""
    connection, address = listener.accept()
    if address[0] == host:
        return connection
    connection.close()
    return None


def shut(sock: socket.socket) -> None:
    """Wakes who waits for the socket, which then reads its end."""
    try:
        sock.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass  # the other side has gone
