"""Writes the installed binding's metadata: python3 dist_info.py SITE_DIR.

Run by the CMake install after it copied the package into SITE_DIR/libshm,
so that importlib.metadata and pip see an install made without pip (the
Debian package, `cmake --install`). The fields come from pyproject.toml and
the version from libshm/__init__.py, as setuptools takes them for
`pip install python/`; SITE_DIR/libshm-VERSION.dist-info gets METADATA,
top_level.txt and a RECORD of every installed file (so `pip uninstall` works
on a private prefix). Standard library only: the build needs no setuptools.
"""
import ast
import base64
import hashlib
import pathlib
import shutil
import sys
import tomllib

HERE = pathlib.Path(__file__).resolve().parent


def version() -> str:
    tree = ast.parse((HERE / "libshm" / "__init__.py").read_text())
    for node in tree.body:
        if isinstance(node, ast.Assign) and [getattr(t, "id", None) for t in node.targets] == ["__version__"]:
            return str(ast.literal_eval(node.value))
    raise SystemExit("dist_info.py: libshm/__init__.py assigns no __version__")


def metadata() -> str:
    project = tomllib.loads((HERE / "pyproject.toml").read_text())["project"]
    readme = HERE / str(project["readme"])
    lines = ["Metadata-Version: 2.1", f"Name: {project['name']}", f"Version: {version()}",
             f"Summary: {project['description']}",
             *(f"Classifier: {c}" for c in project.get("classifiers", [])),
             f"Requires-Python: {project['requires-python']}",
             *(f"Requires-Dist: {d}" for d in project.get("dependencies", [])),
             "Description-Content-Type: text/markdown"]
    return "\n".join(lines) + "\n\n" + readme.read_text()


def record_line(site: pathlib.Path, path: pathlib.Path) -> str:
    data = path.read_bytes()
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{path.relative_to(site)},sha256={digest},{len(data)}"


def main(site: pathlib.Path) -> None:
    package = site / "libshm"
    if not (package / "__init__.py").is_file():
        raise SystemExit(f"dist_info.py: {package} holds no installed package")
    for stale in site.glob("libshm-*.dist-info"):
        shutil.rmtree(stale)
    info = site / f"libshm-{version()}.dist-info"
    info.mkdir()
    (info / "METADATA").write_text(metadata())
    (info / "top_level.txt").write_text("libshm\n")
    files = sorted(p for p in [*package.iterdir(), *info.iterdir()] if p.is_file())
    record = [record_line(site, p) for p in files] + [f"{info.name}/RECORD,,"]
    (info / "RECORD").write_text("\n".join(record) + "\n")


if __name__ == "__main__":
    if len(sys.argv) != 2:
        raise SystemExit("usage: python3 dist_info.py SITE_DIR")
    main(pathlib.Path(sys.argv[1]))
