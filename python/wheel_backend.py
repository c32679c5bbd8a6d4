"""Builds the wheel of this package with the standard library alone: measuring hosts often reach no package index, and any
other backend would have to be fetched from one before pip builds anything. Nothing is compiled, so a wheel is a zip of
the sources, what describes them, and a list with their hashes."""
import base64
import hashlib
import pathlib
import tarfile
import zipfile

HERE = pathlib.Path(__file__).resolve().parent
NAME, VERSION = "kestrel_client", "1.0"
INFO = f"{NAME}-{VERSION}.dist-info"
METADATA = f"""Metadata-Version: 2.1
Name: kestrel-client
Version: {VERSION}
Summary: Talk to a kestrel data-acquisition server, and map its data modules as numpy arrays
Requires-Python: >=3.9
Requires-Dist: numpy
Description-Content-Type: text/markdown

"""


def sources():
    return sorted(path for path in (HERE / "src" / "kestrel").iterdir() if path.suffix in (".py", ".pyi", ".typed"))


def metadata():
    return METADATA + (HERE / "README.md").read_text()


def write_wheel(path, files):
    """`files` are names and their bytes."""
    rows = []
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as wheel:
        for name, content in files.items():
            wheel.writestr(name, content)
            digest = base64.urlsafe_b64encode(hashlib.sha256(content).digest()).rstrip(b"=").decode()
            rows.append(f"{name},sha256={digest},{len(content)}\n")
        wheel.writestr(f"{INFO}/RECORD", "".join(rows) + f"{INFO}/RECORD,,\n")


def described(package_files):
    tags = "Wheel-Version: 1.0\nGenerator: kestrel\nRoot-Is-Purelib: true\nTag: py3-none-any\n"
    return {**package_files, f"{INFO}/METADATA": metadata().encode(), f"{INFO}/WHEEL": tags.encode()}


# What pip calls.

def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    name = f"{NAME}-{VERSION}-py3-none-any.whl"
    write_wheel(pathlib.Path(wheel_directory, name),
                described({f"kestrel/{path.name}": path.read_bytes() for path in sources()}))
    return name


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    name = f"{NAME}-{VERSION}-py3-none-any.whl"
    write_wheel(pathlib.Path(wheel_directory, name), described({f"{NAME}.pth": f"{HERE / 'src'}\n".encode()}))
    return name


def build_sdist(sdist_directory, config_settings=None):
    name = f"{NAME}-{VERSION}.tar.gz"
    with tarfile.open(pathlib.Path(sdist_directory, name), "w:gz") as archive:
        for path in [HERE / "pyproject.toml", HERE / "README.md", pathlib.Path(__file__), *sources()]:
            archive.add(path, f"{NAME}-{VERSION}/{path.relative_to(HERE)}")
    return name
