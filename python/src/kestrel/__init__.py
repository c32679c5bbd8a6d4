"""Talk to a kestrel data-acquisition server.

    import kestrel
    k = kestrel.connect("localhost", 1972)
    k.module.create("spectrum", 4096, 1, header=True)
    counts = kestrel.module("spectrum").data     # the server's memory itself, as a numpy array

``kestrel.aio`` has the same for asyncio.
"""
from ._blocking import Connection, connect
from ._reply import Progress, Reply
from .errors import CommandError, ConnectionLost, KestrelError, ModuleError
from .modules import Module, module

__all__ = ["CommandError", "Connection", "ConnectionLost", "KestrelError", "Module", "ModuleError", "Progress", "Reply",
           "connect", "module"]
__version__ = "1.0"
