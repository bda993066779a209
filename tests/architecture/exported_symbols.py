#!/usr/bin/env python3
"""Checks that shared libraries export what the public headers mark SELVIO_EXPORT, and nothing else; then that it tells
other symbols apart. Usage: exported_symbols.py NM INCLUDE_DIR LIBRARY..."""
import pathlib
import re
import subprocess
import sys

# The name of a marked class, function or variable.
MARKED = re.compile(r"(?:class|struct) SELVIO_EXPORT (\w+)|(?<!class )(?<!struct )SELVIO_EXPORT\s[^;{(]*?(\w+)[(;\[]")
DATA_OF_A_CLASS = re.compile(r"^(vtable|typeinfo name|typeinfo) for ")


def marked_names(text):
    return {kind or other for kind, other in MARKED.findall(text)}


def is_public(symbol, marked):
    """Whether a demangled symbol is a marked one or a part of a marked class."""
    name, is_data = DATA_OF_A_CLASS.subn("", symbol)
    path = re.sub(r"\(.*|\[abi:.*", "", name)
    path = re.sub(r"^(selvio::)?((base64|rules)::)*", "", path).split("::")
    # What a marked class nests is the library's own affair.
    return path[0] in marked and len(path) <= (1 if is_data else 2)


def faults_in(nm, include, libraries):
    headers = pathlib.Path(include).rglob("*.h")
    marked = set().union(*(marked_names(header.read_text(encoding="utf-8")) for header in headers))
    for library in libraries:
        listing = subprocess.check_output([nm, "-D", "--defined-only", "-C", library], text=True)
        symbols = [line.split(None, 2)[2] for line in listing.splitlines()]
        if not symbols:
            yield f"{library}: exports nothing"
        foreign = (symbol for symbol in symbols if not is_public(symbol, marked))
        yield from (f"{pathlib.Path(library).name}: {symbol}: not in a public header" for symbol in foreign)


def self_test():
    marked = marked_names(
        "class SELVIO_EXPORT Camera final : public Base {\n[[nodiscard]] SELVIO_EXPORT std::optional<Size>\n    sizeOf("
        "int);\nSELVIO_EXPORT extern const char* const kKey;\nstruct Hidden {\nvoid hidden();"
    )
    public = ["Camera::start()", "selvio::Camera::Camera(int)", "vtable for selvio::Camera", "kKey",
              "selvio::rules::sizeOf[abi:cxx11](int)"]  # fmt: skip
    private = ["selvio::Hidden::f()", "selvio::hidden()", "selvio::Camera::State::f()", "nlohmann::detail::f(int)",
               "typeinfo for selvio::Camera::State", "std::vector<selvio::Camera>::push_back(selvio::Camera&&)"]  # fmt: skip
    wrong = (symbol for symbol in public + private if is_public(symbol, marked) != (symbol in public))
    return [f"self-test: {symbol}: judged wrongly" for symbol in wrong]


faults = [*faults_in(*sys.argv[1:3], sys.argv[3:]), *self_test()]
print("\n".join(faults) or "no faults")
sys.exit(bool(faults))
