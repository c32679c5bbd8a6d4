"""Data modules: shared memory of the server as numpy arrays.

A module is never locked: what others write shows as it is written. A header can be changed by anybody, so it is read
once and checked against the size of the object. multiprocessing.shared_memory is no way to them: it removes other
programs' objects when it exits.
"""
import mmap
import os
from typing import Any, List, Tuple

import numpy as np
import numpy.typing as npt

from .errors import ModuleError

FOLDER = "/dev/shm"  # where Linux has POSIX shared memory
_TEXT = "S82"
_HEAD = np.dtype({"names": ["data_type", "disp_type", "num_x", "num_y", "x_label", "y_label", "z_label", "title"],
                  "formats": ["i4", "u4", "u4", "u4", _TEXT, _TEXT, _TEXT, _TEXT],
                  "offsets": [0, 4, 8, 12, 32, 114, 196, 278], "itemsize": 360})
_HEAD3D = np.dtype({"names": ["data_type", "disp_type", "num_x", "num_y", "num_t", "x_label", "y_label", "t_label",
                              "z_label", "title", "labels_num", "labels_size", "data_offset"],
                    "formats": ["i4", "u4", "u4", "u4", "u4", _TEXT, _TEXT, _TEXT, _TEXT, _TEXT, "i4", "i4", "i4"],
                    "offsets": [0, 4, 8, 12, 16, 32, 114, 196, 278, 360, 444, 448, 456], "itemsize": 464})
_ELEMENTS = {1: "u4", 2: "u2", 3: "f4", 4: "f8",
             32: "u2", 33: "u2", **dict.fromkeys(range(40, 48), "u4")}  # of the image display: pixels as words


def _text(raw: bytes) -> str:
    return raw.split(b"\0")[0].decode(errors="replace")


class Module:
    """A mapped module. ``data`` is the memory itself: [y, x], or [t, y, x] of a module that has frames.

    An array keeps the mapping; a module that is made anew under the same name is another one (``is_current``).
    """

    data: npt.NDArray[Any]
    title: str
    x_label: str
    y_label: str
    t_label: str
    z_label: str
    labels: List[str]  # of the frames

    def __init__(self, name: str, writable: bool = False) -> None:
        if not name or "/" in name or "\0" in name:
            raise ValueError(f"{name!r} is no name of a module")
        self.name = name
        fd = os.open(os.path.join(FOLDER, name), (os.O_RDWR if writable else os.O_RDONLY) | os.O_CLOEXEC | os.O_NOFOLLOW |
                     os.O_NONBLOCK)  # of what is no module, a pipe, an opening would wait
        try:
            status = os.fstat(fd)
            if status.st_size < _HEAD.itemsize:
                raise ModuleError(f"{name} is too short for a data module")
            access = mmap.PROT_READ | (mmap.PROT_WRITE if writable else 0)
            self._memory = mmap.mmap(fd, status.st_size, mmap.MAP_SHARED, access)
        finally:
            os.close(fd)
        self._identity = (status.st_dev, status.st_ino)
        self._look()

    def is_current(self) -> bool:
        """Whether the name still stands for this object."""
        try:
            status = os.stat(os.path.join(FOLDER, self.name))
        except FileNotFoundError:
            return False
        return (status.st_dev, status.st_ino) == self._identity

    def __array__(self, dtype: Any = None, copy: Any = None) -> npt.NDArray[Any]:
        array = np.asarray(self.data, dtype=dtype)
        return array.copy() if copy and array is self.data else array

    def __repr__(self) -> str:
        return f"<module {self.name} {self.data.dtype} {self.data.shape} {self.title!r}>"

    def _look(self) -> None:
        size = len(self._memory)
        head = np.frombuffer(bytes(self._memory[:_HEAD.itemsize]), _HEAD)[0]
        kind = _ELEMENTS.get(int(head["data_type"]))
        if kind is None:
            raise ModuleError(f"{self.name} has elements of the unknown type {int(head['data_type'])}")
        if int(head["disp_type"]) >> 16 > 1:
            raise ModuleError(f"{self.name} is neither 2-D nor 3-D")
        offset = _HEAD.itemsize
        shape: Tuple[int, ...] = (int(head["num_y"]), int(head["num_x"]))
        self.t_label, self.labels = "", []
        if int(head["disp_type"]) >> 16 == 1:
            if size < _HEAD3D.itemsize:
                raise ModuleError(f"{self.name} is too short for a 3-D data module")
            head = np.frombuffer(bytes(self._memory[:_HEAD3D.itemsize]), _HEAD3D)[0]
            offset, shape = int(head["data_offset"]), (int(head["num_t"]), *shape)
            if not _HEAD3D.itemsize <= offset <= size or offset % np.dtype(kind).itemsize:
                raise ModuleError(f"{self.name} has its data nowhere (offset {offset})")
            self.t_label = _text(head["t_label"])
            self.labels = self._labels(int(head["labels_num"]), offset)
        self.data = self._map(kind, offset, shape)
        self.x_label, self.y_label = _text(head["x_label"]), _text(head["y_label"])
        self.z_label, self.title = _text(head["z_label"]), _text(head["title"])

    def _map(self, kind: str, offset: int, shape: Tuple[int, ...]) -> npt.NDArray[Any]:
        count = 1
        for length in shape:
            count *= length
        if max(shape) >= 1 << 31 or offset + count * np.dtype(kind).itemsize > len(self._memory):
            raise ModuleError(f"{self.name} is shorter than its {' x '.join(map(str, shape))} elements")
        return np.frombuffer(self._memory, kind, count, offset).reshape(shape)

    def _labels(self, count: int, end: int) -> List[str]:
        table = _HEAD3D.itemsize
        if count < 0 or table + 4 * count > end:
            return []
        starts = np.frombuffer(bytes(self._memory[table:table + 4 * count]), "i4")
        return [_text(bytes(self._memory[int(s):end])) if table <= s < end else "" for s in starts]


def module(name: str, writable: bool = False) -> Module:
    """Maps the data module of that name, for reading unless ``writable``."""
    return Module(name, writable)
