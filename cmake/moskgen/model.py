"""The declaration language of moskgen: tokenizer, parser and the model it builds."""

import re

BUILTINS = {"bool", "U8", "U16", "U32", "U64", "S8", "S16", "S32", "S64", "double"}

ATTR_FLAGS = {"key", "mutable", "counter", "nonotify", "nullable", "instantiating", "inserting",
              "tree", "array", "hasher", "notifyall", "less", "const", "keyed", "ordefault",
              "table", "bykey", "inline"}


class MoskError(Exception):
    pass


class Token:
    def __init__(self, kind, text, line):
        self.kind, self.text, self.line = kind, text, line

    def __repr__(self):
        return f"{self.kind}:{self.text}@{self.line}"


TOKEN_RE = re.compile(r"""
    (?P<ws>[ \t\r]+)
  | (?P<nl>\n)
  | (?P<comment>//[^\n]*)
  | (?P<code>`[^`]*`)
  | (?P<string>"(?:[^"\\]|\\.)*")
  | (?P<name>[A-Za-z_][A-Za-z0-9_]*(?:::[A-Za-z_][A-Za-z0-9_]*)*)
  | (?P<number>0[xX][0-9a-fA-F]+|[0-9]+)
  | (?P<punct>->|\.\.|[{}()<>;:,=*&\-\[\].])
""", re.VERBOSE)


def tokenize(text, path):
    tokens, line, pos = [], 1, 0
    while pos < len(text):
        m = TOKEN_RE.match(text, pos)
        if not m:
            raise MoskError(f"{path}:{line}: unexpected character {text[pos]!r}")
        kind = m.lastgroup
        value = m.group(kind)
        if kind == "nl":
            line += 1
        elif kind in ("ws", "comment"):
            pass
        else:
            tokens.append(Token(kind, value, line))
            line += value.count("\n") if kind == "code" else 0
        pos = m.end()
    tokens.append(Token("eof", "", line))
    return tokens


class Type:
    """A C++ type as written in a declaration."""

    def __init__(self, text):
        self.text = text.replace("Ptr<", "Mosk::Ptr<") if not text.startswith("Mosk::") else text
        if self.text == "Name":
            self.text = "Mosk::Name"
        m = re.fullmatch(r"Mosk::Ptr<\s*([\w:]+)(\s+const)?\s*>", self.text)
        self.is_ptr = m is not None
        self.pointee = m.group(1) if m else None
        self.pointee_const = bool(m and m.group(2))

    @property
    def base(self):
        return self.pointee if self.is_ptr else self.text

    def param(self, model):
        """The type as a function parameter."""
        if self.text in BUILTINS or model.is_enum(self.text):
            return self.text
        return f"{self.text} const&"

    def __str__(self):
        return self.text


class Field:
    def __init__(self, name, type_, default, line):
        self.name, self.type, self.default, self.line = name, type_, default, line


class ValueType:
    kind = "value"

    def __init__(self, name, ns, line):
        self.name, self.ns, self.line = name, ns, line
        self.underlying = None  # a scalar wrapper when set
        self.fields = []
        self.range = None  # (min, max, message)
        self.default = None
        self.marker = None  # (name, value): a value beyond the range that is still accepted
        self.ordered = None  # None, "auto" or "custom"
        self.arithmetic = False
        self.custom_hash = False
        self.cached_hash = False  # the hash is computed when a field changes and kept
        self.custom_text = False
        self.custom_equal = False
        self.code = []

    @property
    def scalar(self):
        return self.underlying is not None

    @property
    def qualified(self):
        return f"{self.ns}::{self.name}" if self.ns else self.name


class Alias:
    kind = "alias"

    def __init__(self, name, ns, target, line):
        self.name, self.ns, self.target, self.line = name, ns, target, line

    @property
    def qualified(self):
        return f"{self.ns}::{self.name}" if self.ns else self.name


class EnumType:
    kind = "enum"

    def __init__(self, name, ns, underlying, line):
        self.name, self.ns, self.underlying, self.line = name, ns, underlying, line
        self.items = []

    @property
    def qualified(self):
        return f"{self.ns}::{self.name}" if self.ns else self.name


class Param:
    def __init__(self, name, type_, flags, line):
        self.name, self.type, self.line = name, type_, line
        self.key = "key" in flags
        self.mutable = "mutable" in flags
        self.notify = self.mutable and "nonotify" not in flags


class Attr:
    """A scalar, counter or pointer attribute of an entity."""

    def __init__(self, name, type_, default, flags, line):
        self.name, self.type, self.default, self.line = name, type_, default, line
        self.counter = "counter" in flags
        self.nullable = "nullable" in flags
        self.notify = "nonotify" not in flags
        self.bykey = flags.get("bykey")  # a replicated reference carried as its key in this coll
        self.pointee = None  # the referenced entity, when declared in the same file


class Collection:
    """A keyed collection attribute of an entity."""

    def __init__(self, name, key, value, flags, line):
        self.name, self.key, self.value, self.line = name, key, value, line
        self.flags = flags
        self.notify = "nonotify" not in flags
        self.notifyall = "notifyall" in flags
        self.tree = "tree" in flags
        self.capacity = flags.get("array")
        self.inline = flags.get("inline")  # entries kept inside the owner before allocating
        self.hasher = flags.get("hasher")
        self.less = flags.get("less")
        self.keyed = flags.get("keyed")  # the field of the value that is its key
        self.inserting = "inserting" in flags
        self.ordefault = "ordefault" in flags
        self.table = "table" in flags
        self.elem = None  # the element entity, for entity collections
        self.kind = None  # "value", "entity", "ptr", "array"

    @property
    def cap(self):
        return self.name[0].upper() + self.name[1:]


class Entity:
    kind = "entity"

    def __init__(self, name, ns, line):
        self.name, self.ns, self.line = name, ns, line
        self.params = []
        self.attrs = []
        self.colls = []
        self.code = []
        self.notifications = []  # extra (name, [param types])
        self.pointer_interface = False
        self.anonymous = False
        self.default_name = None
        self.base = None
        self.replicated = False
        self.in_tree = False
        self.owners = []

    @property
    def qualified(self):
        return f"{self.ns}::{self.name}" if self.ns else self.name

    @property
    def key_param(self):
        for p in self.params:
            if p.key:
                return p
        return None

    @property
    def named(self):
        """Top-level entities are constructed from a Name."""
        return not self.params and not self.anonymous


class Model:
    def __init__(self, path):
        self.path = path
        self.includes = []
        self.decls = []

    def find(self, name):
        for d in self.decls:
            if d.name == name or d.qualified == name:
                return d
        return None

    def is_enum(self, name):
        d = self.find(name)
        return d is not None and d.kind == "enum"

    def entities(self):
        return [d for d in self.decls if d.kind == "entity"]


class Parser:
    def __init__(self, tokens, path):
        self.toks, self.i, self.path = tokens, 0, path
        self.ns = ""

    def error(self, msg, tok=None):
        tok = tok or self.peek()
        return MoskError(f"{self.path}:{tok.line}: {msg} (at {tok.text!r})")

    def peek(self, k=0):
        return self.toks[self.i + k]

    def next(self):
        t = self.toks[self.i]
        self.i += 1
        return t

    def accept(self, text):
        if self.peek().text == text and self.peek().kind != "string":
            self.i += 1
            return True
        return False

    def expect(self, text):
        if not self.accept(text):
            raise self.error(f"expected {text!r}")

    def name(self):
        t = self.next()
        if t.kind != "name":
            raise self.error("expected a name", t)
        return t.text

    def string(self):
        t = self.next()
        if t.kind != "string":
            raise self.error("expected a quoted text", t)
        return t.text

    def code(self):
        t = self.next()
        if t.kind != "code":
            raise self.error("expected a `code` block", t)
        return t.text[1:-1]

    def type_(self):
        """A type: a qualified name with optional template arguments and const."""
        parts = [self.name()]
        if self.accept("<"):
            args = [self.template_arg()]
            while self.accept(","):
                args.append(self.template_arg())
            self.expect(">")
            parts[0] += "<" + ", ".join(args) + ">"
        while self.peek().text == "const":
            self.next()
            parts.append("const")
        return " ".join(parts)

    def template_arg(self):
        """A template argument: a type or a number (a capacity)."""
        if self.peek().kind == "number":
            return self.next().text
        return self.type_()

    def raw_until(self, stops, stop_at_string=False):
        """Raw tokens up to (not including) a stop token at nesting depth 0."""
        out, depth = [], 0
        while True:
            t = self.peek()
            if t.kind == "eof":
                raise self.error("unexpected end of declaration")
            if depth == 0 and (t.text in stops or (t.kind == "name" and t.text in ATTR_FLAGS)
                               or (stop_at_string and t.kind == "string")):
                break
            if t.text in "([<":
                depth += 1
            elif t.text in ")]>":
                depth -= 1
            out.append(t.text)
            self.next()
        text = ""
        for tok in out:
            if text and (tok[0].isalnum() or tok[0] in "_\"") and (text[-1].isalnum() or text[-1] in "_\""):
                text += " "
            text += tok
        return text

    def flags(self):
        flags = {}
        while self.peek().kind == "name" and self.peek().text in ATTR_FLAGS:
            f = self.next().text
            if f in ("array", "inline"):
                flags[f] = int(self.next().text)
            elif f in ("hasher", "less", "keyed", "bykey"):
                flags[f] = self.name()
            else:
                flags[f] = True
        return flags

    def parse(self, model):
        while self.peek().kind != "eof":
            t = self.next()
            if t.text == "namespace":
                self.ns = self.name()
                self.expect(";")
            elif t.text == "include":
                model.includes.append(self.string()[1:-1])
                self.expect(";")
            elif t.text == "value":
                model.decls.append(self.value(t.line))
            elif t.text == "enum":
                model.decls.append(self.enum(t.line))
            elif t.text == "entity":
                model.decls.append(self.entity(t.line))
            elif t.text == "alias":
                name = self.name()
                self.expect("=")
                model.decls.append(Alias(name, self.ns, self.type_(), t.line))
                self.expect(";")
            else:
                raise self.error("expected namespace, include, alias, value, enum or entity", t)

    def value(self, line):
        v = ValueType(self.name(), self.ns, line)
        if self.accept(":"):
            v.underlying = self.type_()
        self.expect("{")
        while not self.accept("}"):
            t = self.peek()
            if t.text == "range":
                self.next()
                lo = self.raw_until({".."})
                self.expect("..")
                hi = self.raw_until({";"}, stop_at_string=True)
                msg = self.string()
                v.range = (lo, hi, msg)
                self.expect(";")
            elif t.text == "marker":
                self.next()
                name = self.name()
                self.expect("=")
                v.marker = (name, self.raw_until({";"}))
                self.expect(";")
            elif t.text == "default":
                self.next()
                v.default = self.raw_until({";"})
                self.expect(";")
            elif t.text == "ordered":
                self.next()
                v.ordered = "custom" if self.accept("custom") else "auto"
                self.expect(";")
            elif t.text == "arithmetic":
                self.next()
                v.arithmetic = True
                self.expect(";")
            elif t.text == "hash":
                self.next()
                if self.accept("cached"):
                    v.cached_hash = True
                else:
                    self.expect("custom")
                    v.custom_hash = True
                self.expect(";")
            elif t.text == "text":
                self.next()
                self.expect("custom")
                v.custom_text = True
                self.expect(";")
            elif t.text == "equal":
                self.next()
                self.expect("custom")
                v.custom_equal = True
                self.expect(";")
            elif t.text == "code":
                self.next()
                v.code.append(self.code())
                self.accept(";")
            else:
                name = self.name()
                self.expect(":")
                ty = Type(self.type_())
                default = None
                if self.accept("="):
                    default = self.raw_until({";"})
                self.expect(";")
                v.fields.append(Field(name, ty, default, t.line))
        if v.marker and not v.range:
            raise MoskError(f"{self.path}:{line}: {v.name}: a marker needs a range")
        if v.scalar and v.fields:
            raise MoskError(f"{self.path}:{line}: {v.name}: a scalar wrapper has no fields")
        return v

    def enum(self, line):
        e = EnumType(self.name(), self.ns, None, line)
        self.expect(":")
        e.underlying = self.type_()
        self.expect("{")
        while not self.accept("}"):
            name = self.name()
            self.expect("=")
            value = self.next().text
            self.expect(";")
            e.items.append((name, int(value, 0)))
        return e

    def entity(self, line):
        e = Entity(self.name(), self.ns, line)
        if self.accept("("):
            while not self.accept(")"):
                t = self.peek()
                name = self.name()
                self.expect(":")
                ty = Type(self.type_())
                e.params.append(Param(name, ty, self.flags(), t.line))
                self.accept(",")
        while self.peek().text in ("pointer", "anonymous", "extends", "defaultname", "replicated"):
            word = self.next().text
            if word == "replicated":
                e.replicated = True
            elif word == "pointer":
                e.pointer_interface = True
            elif word == "defaultname":
                e.default_name = self.string()
            elif word == "anonymous":
                e.anonymous = True
            else:
                e.base = self.type_()
        self.expect("{")
        while not self.accept("}"):
            t = self.peek()
            if t.text == "code":
                self.next()
                e.code.append(self.code())
                self.accept(";")
                continue
            if t.text == "notification":
                self.next()
                name = self.name()
                self.expect("(")
                types = []
                while not self.accept(")"):
                    types.append(Type(self.type_()))
                    self.accept(",")
                self.expect(";")
                e.notifications.append((name, types))
                continue
            name = self.name()
            self.expect(":")
            ty = self.type_()
            if self.accept("->"):
                val = self.type_()
                flags = self.flags()
                self.expect(";")
                e.colls.append(Collection(name, Type(ty), Type(val), flags, t.line))
            else:
                default = None
                if self.accept("="):
                    default = self.raw_until({";"})
                flags = self.flags()
                self.expect(";")
                e.attrs.append(Attr(name, Type(ty), default, flags, t.line))
        if e.params and not e.key_param:
            e.anonymous = True
        return e


def resolve(model):
    for e in model.entities():
        for c in e.colls:
            target = model.find(c.value.base)
            if c.table:
                c.kind = "table"
            elif c.capacity is not None:
                c.kind = "array"
            elif c.value.is_ptr:
                c.kind = "ptr"
            elif target is not None and target.kind == "entity":
                c.kind = "entity"
                c.elem = target
                target.owners.append((e, c))
                if c.tree:
                    target.in_tree = True
                if target.key_param is None:
                    raise MoskError(f"{model.path}:{c.line}: {target.name} has no key parameter "
                                    f"to be an element of {e.name}.{c.name}")
            else:
                c.kind = "value"
            if c.keyed and c.kind != "value":
                raise MoskError(f"{model.path}:{c.line}: only value collections can be keyed "
                                f"by a field of their value")
            if c.tree and c.kind != "entity":
                raise MoskError(f"{model.path}:{c.line}: only entity collections can be trees")
            if c.inline is not None and c.kind != "value":
                raise MoskError(f"{model.path}:{c.line}: only value maps keep entries inline")
            if c.ordefault and c.kind != "value":
                raise MoskError(f"{model.path}:{c.line}: only value maps look up with ordefault")


def resolve_replication(model):
    """Elements and anonymous pointees of a replicated entity are replicated too."""
    for e in model.entities():
        for a in e.attrs:
            if a.type.is_ptr:
                target = model.find(a.type.pointee)
                if target is not None and target.kind == "entity":
                    a.pointee = target
            if a.bykey and not any(c.name == a.bykey and c.kind == "entity" for c in e.colls):
                raise MoskError(f"{model.path}:{a.line}: bykey {a.bykey}: {e.name} has no such "
                                "collection of entities")
    changed = True
    while changed:
        changed = False
        for e in model.entities():
            if not e.replicated:
                continue
            targets = [c.elem for c in e.colls if c.elem is not None]
            targets += [a.pointee for a in e.attrs if a.pointee is not None and not a.bykey]
            for t in targets:
                if not t.replicated:
                    t.replicated = True
                    changed = True


def parse_file(text, path):
    model = Model(path)
    Parser(tokenize(text, path), path).parse(model)
    resolve(model)
    resolve_replication(model)
    return model
