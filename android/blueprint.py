"""Reads the build files of the platform, as far as this project's go: modules with properties whose
values are texts, truths, numbers, lists and maps."""
import pathlib
import re

TOKEN = re.compile(r'\s+|//[^\n]*|/\*.*?\*/|(?P<text>"(?:\\.|[^"\\])*")|(?P<word>[\w.-]+)|(?P<sign>[{}\[\]:,+=])',
                   re.S)


class Module:
    def __init__(self, kind, properties):
        self.kind = kind
        self.properties = properties

    def name(self):
        return self.properties.get("name", "(no name)")

    def property_names(self, properties=None, prefix=""):
        """With their path, as in target.android.enabled."""
        for name, value in (self.properties if properties is None else properties).items():
            if isinstance(value, dict):
                yield from self.property_names(value, f"{prefix}{name}.")
            else:
                yield prefix + name


class Parser:
    def __init__(self, text):
        self.tokens = []
        position = 0
        while position < len(text):
            match = TOKEN.match(text, position)
            if not match:
                raise SyntaxError(f"line {text.count(chr(10), 0, position) + 1}: unreadable")
            if match.lastgroup:
                self.tokens.append(match.group())
            position = match.end()

    def take(self, expected=None):
        token = self.tokens.pop(0) if self.tokens else "the end"
        if expected and token != expected:
            raise SyntaxError(f"{token} instead of {expected}")
        return token

    def value(self):
        token = self.take()
        if token == "{":
            return self.map()
        if token == "[":
            return self.list()
        if token.startswith('"'):
            return token[1:-1]
        return {"true": True, "false": False}.get(token, token)

    def map(self):
        properties = {}
        while self.tokens[:1] != ["}"]:
            name = self.take()
            self.take(":")
            if name in properties:
                raise SyntaxError(f"{name} is given twice")
            properties[name] = self.value()
            if self.tokens[:1] != ["}"]:
                self.take(",")
        self.take("}")
        return properties

    def list(self):
        values = []
        while self.tokens[:1] != ["]"]:
            values.append(self.value())
            if self.tokens[:1] != ["]"]:
                self.take(",")
        self.take("]")
        return values

    def modules(self):
        found = []
        while self.tokens:
            kind = self.take()
            self.take("{")
            found.append(Module(kind, self.map()))
        return found


def modules(path):
    return Parser(pathlib.Path(path).read_text()).modules()


def with_defaults(module, all_modules):
    """The module's properties, after those of the defaults it names; lists are joined."""
    merged = {}
    for name in module.properties.get("defaults", []):
        defaults = next(other for other in all_modules if other.name() == name)
        merged.update(with_defaults(defaults, all_modules))
    for name, value in module.properties.items():
        merged[name] = merged.get(name, []) + value if isinstance(value, list) else value
    return merged


def sources(module, all_modules, root):
    """The files that the module's source patterns name; a pattern without any is an error."""
    properties = with_defaults(module, all_modules)
    files = set()
    for pattern in properties.get("srcs", []):
        found = sorted(pathlib.Path(root).glob(pattern))
        if not found:
            raise FileNotFoundError(f"{module.name()}: {pattern} names no file")
        files |= set(found)
    for pattern in properties.get("exclude_srcs", []):
        files -= set(pathlib.Path(root).glob(pattern))
    return sorted(files)
