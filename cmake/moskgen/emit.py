"""Emits the C++ header and source of a parsed model declaration."""

from model import BUILTINS, MoskError
import replica


def lower_first(name):
    return name[0].lower() + name[1:]


def cap(name):
    return name[0].upper() + name[1:]


def member(name):
    """The data member behind an attribute; a name that ends in '_' would otherwise give a
    reserved identifier with a double underscore."""
    return name[:-1] + "Attr_" if name.endswith("_") else name + "_"


class Out:
    def __init__(self):
        self.lines = []

    def __call__(self, text=""):
        self.lines.extend(text.split("\n") if text else [""])

    def text(self):
        return "\n".join(self.lines) + "\n"


def value_text_prefix(v):
    return f"Value('{v.qualified}', ** {{"


def by_value(t, model):
    return t.text in BUILTINS or model.is_enum(t.text)


def ret(t, model):
    """The return type of a getter of a stored value."""
    return t.text if by_value(t, model) else f"{t.text} const&"


# ----------------------------------------------------------------------------------------------
# Value types


def emit_scalar(o, v, model):
    u = v.underlying
    default = v.default if v.default is not None else (v.range[0] if v.range else "0")
    o(f"class {v.name} {{")
    o(" public:")
    if v.range:
        lo, hi, _ = v.range
        o(f"  static constexpr {u} min = {lo};")
        o(f"  static constexpr {u} max = {hi};")
    if v.marker:
        o("  // A reserved value beyond the range that is still accepted.")
        o(f"  static constexpr {u} {v.marker[0]} = {v.marker[1]};")
    o(f"  {v.name}() = default;")
    if v.range:
        o(f"  explicit {v.name}({u} value) : value_(value) {{ check(value); }}")
    else:
        o(f"  constexpr explicit {v.name}({u} value) : value_(value) {{}}")
    o(f"  {u} value() const {{ return value_; }}")
    if v.range:
        o(f"  void valueIs({u} value) {{")
        o("    check(value);")
        o("    value_ = value;")
        o("  }")
    else:
        o(f"  void valueIs({u} value) {{ value_ = value; }}")
    o(f"  bool operator==({v.name} const&) const = default;")
    if v.ordered:
        o(f"  auto operator<=>({v.name} const&) const = default;")
    if v.arithmetic:
        o(f"  {v.name}& operator+=({v.name} const& other) {{")
        o("    value_ += other.value_;")
        o("    return *this;")
        o("  }")
        o(f"  {v.name} operator+({v.name} const& other) const {{")
        o(f"    {v.name} sum(*this);")
        o("    sum += other;")
        o("    return sum;")
        o("  }")
    if v.custom_hash:
        o("  U32 hash() const;")
    else:
        o("  U32 hash() const { return Mosk::hashOf(value_); }")
    if v.custom_text:
        o("  void strep(std::ostream& os) const;")
        o(f"  static {v.name} strepRead(Mosk::TextReader& r);")
    else:
        o("  void strep(std::ostream& os) const { Mosk::writeStrep(os, value_); }")
        o(f"  static {v.name} strepRead(Mosk::TextReader& r) {{")
        o(f"    return {v.name}(Mosk::ValueTraits<{u}>::read(r));")
        o("  }")
    replica.scalar_log_members(o, v)
    for c in v.code:
        o(c)
    o("")
    o(" private:")
    if v.range:
        o(f"  static void check({u} value) {{")
        beside = f" && value != {v.marker[0]}" if v.marker else ""
        o(f"    if (Mosk::outOfRange(value, min, max){beside}) {{")
        o(f"      throw Mosk::RangeException({v.range[2]});")
        o("    }")
        o("  }")
    o(f"  {u} value_ = {default};")
    o("};")
    o("")
    emit_stream_operator(o, v.name)


def emit_stream_operator(o, name):
    """A value's `<<`, which writes its text form."""
    o(f"inline std::ostream& operator<<(std::ostream& os, {name} const& v) {{")
    o("  v.strep(os);")
    o("  return os;")
    o("}")
    o("")


def emit_composite(o, v, model):
    n = v.name
    o(f"class {n} {{")
    o(" public:")
    o(f"  {n}() = default;")
    params = ", ".join(f"{f.type.param(model)} {f.name}" for f in v.fields)
    inits = ", ".join(f"{f.name}_({f.name})" for f in v.fields)
    explicit = "explicit " if len(v.fields) == 1 else ""
    o(f"  {explicit}{n}({params}) : {inits} {{}}")
    o("")
    rehash = " hash_ = computeHash();" if v.cached_hash else ""
    for f in v.fields:
        o(f"  {ret(f.type, model)} {f.name}() const {{ return {f.name}_; }}")
        o(f"  void {f.name}Is({f.type.param(model)} value) {{ {f.name}_ = value;{rehash} }}")
    o("")
    if v.custom_equal:
        o(f"  bool operator==({n} const& other) const;")
    else:
        o(f"  bool operator==({n} const&) const = default;")
    if v.ordered:
        if v.ordered == "custom":
            o(f"  bool operator<({n} const& other) const;")
        else:
            o(f"  bool operator<({n} const& other) const {{")
            for f in v.fields[:-1]:
                o(f"    if ({f.name}_ < other.{f.name}_) return true;")
                o(f"    if (other.{f.name}_ < {f.name}_) return false;")
            last = v.fields[-1].name
            o(f"    return {last}_ < other.{last}_;")
            o("  }")
        o(f"  bool operator<=({n} const& other) const {{ return !(other < *this); }}")
        o(f"  bool operator>({n} const& other) const {{ return !(*this <= other); }}")
        o(f"  bool operator>=({n} const& other) const {{ return !(*this < other); }}")
    if v.cached_hash:
        o("  // Computed when a field is set: a value hashed at every lookup is hashed once.")
        o("  U32 hash() const { return hash_; }")
    else:
        o("  U32 hash() const;")
    o("  void strep(std::ostream& os) const;")
    o(f"  static {n} strepRead(Mosk::TextReader& r);")
    replica.composite_log_decls(o, v)
    for c in v.code:
        o(c)
    o("")
    o(" private:")
    for f in v.fields:
        init = f"{{{f.default}}}" if f.default is not None else "{}"
        o(f"  {f.type.text} {f.name}_{init};")
    if v.cached_hash:
        o("  U32 computeHash() const;")
        o("  // After the fields, so that every constructor computes it from their values.")
        o("  U32 hash_ = computeHash();")
    o("};")
    o("")
    emit_stream_operator(o, n)


def emit_composite_source(o, v, model):
    n = v.name
    replica.composite_log_source(o, v)
    if not v.custom_hash:
        o(f"U32 {n}::{'computeHash' if v.cached_hash else 'hash'}() const {{")
        o("  Mosk::HashMix mix;")
        for f in v.fields:
            o(f"  mix.add(Mosk::hashOf({f.name}_));")
        o("  return mix.final();")
        o("}")
        o("")
    if v.custom_text:
        return
    prefix = value_text_prefix(v)
    o(f"void {n}::strep(std::ostream& os) const {{")
    for i, f in enumerate(v.fields):
        lead = prefix if i == 0 else ", "
        o(f"  os << \"{lead}'{f.name}': \";")
        o(f"  Mosk::writeStrep(os, {f.name}_);")
    o("  os << \"})\";")
    o("}")
    o("")
    o(f"{n} {n}::strepRead(Mosk::TextReader& r) {{")
    o(f"  {n} v;")
    for i, f in enumerate(v.fields):
        lead = prefix if i == 0 else ", "
        o(f"  r.expect(\"{lead}'{f.name}': \");")
        o(f"  v.{f.name}_ = Mosk::readField<{f.type.text}>(r, \"{f.name}\");")
    if v.cached_hash:
        o("  v.hash_ = v.computeHash();")
    o("  r.expect(\"})\");")
    o("  return v;")
    o("}")
    o("")


def emit_enum(o, e, model):
    items = ",\n".join(f"  {name} = {value}" for name, value in e.items)
    o(f"enum class {e.name} : {e.underlying} {{")
    o(items)
    o("};")
    o("")
    o(f"// The enumerator's name, or its number when it has none.")
    o(f"std::string stringValue({e.name} value);")
    o(f"// The enumerator with this number or name; others raise a range or parse error.")
    o(f"{e.name} {e.name}Instance(U32 value);")
    o(f"{e.name} {e.name}Instance(std::string_view name);")
    o(f"std::ostream& operator<<(std::ostream& os, {e.name} value);")
    o("")


def emit_enum_traits(o, e):
    q = e.qualified
    o("namespace Mosk {")
    o("template <>")
    o(f"struct ValueTraits<{q}> {{")
    o(f"  static void write(std::ostream& os, {q} v) {{ os << {e.ns}::stringValue(v); }}")
    o(f"  static {q} read(TextReader& r) {{")
    o(f"    return {e.ns}::{e.name}Instance(r.readIdentifier(\"{e.name}\"));")
    o("  }")
    o(f"  static U32 hash({q} v) {{ return hashU32(static_cast<U32>(v)); }}")
    o("};")
    replica.enum_log_traits(o, e)
    o("}  // namespace Mosk")
    o("")


def emit_enum_source(o, e):
    n = e.name
    o(f"std::string stringValue({n} value) {{")
    o("  switch (value) {")
    for name, _ in e.items:
        o(f"    case {n}::{name}:")
        o(f"      return \"{name}\";")
    o("  }")
    o("  return std::to_string(static_cast<U32>(value));")
    o("}")
    o("")
    o(f"{n} {n}Instance(U32 value) {{")
    o("  switch (value) {")
    for name, value in e.items:
        o(f"    case {value}:")
        o(f"      return {n}::{name};")
    o("  }")
    o(f"  throw Mosk::RangeException(\"{n} value \" + std::to_string(value) + \" not allowed\");")
    o("}")
    o("")
    o(f"{n} {n}Instance(std::string_view name) {{")
    for name, _ in e.items:
        o(f"  if (name == \"{name}\") return {n}::{name};")
    o(f"  throw Mosk::ParseException(\"unknown {n} \\\"\" + std::string(name) + \"\\\"\");")
    o("}")
    o("")
    o(f"std::ostream& operator<<(std::ostream& os, {n} value) {{ return os << stringValue(value); }}")
    o("")


# ----------------------------------------------------------------------------------------------
# Entities


def coll_types(c, model):
    """The runtime container of a collection."""
    k = c.key.text
    if c.kind == "entity":
        e = c.elem.name
        extra = ""
        if c.hasher or c.less:
            extra = f", {c.hasher or 'Mosk::KeyHash<' + k + '>'}"
            if c.less:
                extra += f", {c.less}"
        if c.tree:
            return f"Mosk::RbTreeMap<{k}, {e}, {e}::KeyOf{', ' + c.less if c.less else ''}>"
        return f"Mosk::EntityHashMap<{k}, {e}, {e}::KeyOf{extra}>"
    if c.kind == "array":
        return f"Mosk::Array<{c.value.text}, {k}, {c.capacity}>"
    if c.kind == "table":
        return f"Skerry::LocalTable<{k}, {c.value.text}>"
    v = c.value.text
    if c.kind == "ptr":
        v = f"Mosk::Ptr<{c.value.pointee}{' const' if c.value.pointee_const else ''}>"
    extra = ""
    if c.hasher or c.less or c.inline:
        extra = f", {c.hasher or 'Mosk::KeyHash<' + k + '>'}"
        if c.less or c.inline:
            extra += f", {c.less or 'std::less<' + k + '>'}"
        if c.inline:
            extra += f", {c.inline}"
    return f"Mosk::HashMap<{k}, {v}{extra}>"


def elem_ctor_params(elem, model):
    return ", ".join(f"{p.type.param(model)} {p.name}" for p in elem.params)


def elem_ctor_args(elem):
    return ", ".join(p.name for p in elem.params)


def notify_call(c, key_type, args):
    if c.notifyall:
        return (f"notify(static_cast<void (NotifieeConst::*)({key_type} const&)>("
                f"&NotifieeConst::on{c.cap}), {args});")
    return f"notify(&NotifieeConst::on{c.cap}, {args});"


def emit_entity(o, e, model):
    n = e.name
    base = e.base or ("Mosk::NamedEntity" if e.named else "Mosk::Entity")
    o(f"class {n} : public {base} {{")
    o(" public:")
    # Notifiee interface first, so that inline setters can name its callbacks.
    o(f"  class NotifieeConst : public Mosk::NotifieeConstOf<{n}> {{")
    o("   public:")
    for p in e.params:
        if p.notify:
            o(f"    virtual void on{cap(p.name)}() {{}}")
    for a in e.attrs:
        if a.notify:
            o(f"    virtual void on{cap(a.name)}() {{}}")
    for c in e.colls:
        if c.notify:
            o(f"    virtual void on{c.cap}({c.key.text} const&) {{}}")
            if c.notifyall:
                o(f"    virtual void on{c.cap}() {{}}")
            if c.kind == "table":
                o(f"    virtual void on{c.cap}Corrupt() {{}}")
    for name, types in e.notifications:
        args = ", ".join(f"{t.text} const&" for t in types)
        o(f"    virtual void {name}({args}) {{}}")
    o("  };")
    o("")
    kp = e.key_param
    if kp:
        o("  struct KeyOf {")
        key_member = member(kp.name)
        o(f"    {kp.type.text} const& operator()({n} const& e) const {{ return e.{key_member}; }}")
        o("  };")
        o("")
    # Constructor and destructor.
    if e.named and e.default_name:
        o(f"  explicit {n}(Mosk::Name name = {e.default_name});")
    elif e.named:
        o(f"  explicit {n}(Mosk::Name name);")
    else:
        explicit = "explicit " if len(e.params) == 1 else ""
        o(f"  {explicit}{n}({elem_ctor_params(e, model)});")
    if any(c.kind == "entity" for c in e.colls):
        o(f"  ~{n}() override;")
    if kp:
        o(f"  Mosk::Name name() const override {{ return Mosk::valueToStrep({member(kp.name)}); }}")
    elif e.anonymous:
        o("  Mosk::Name name() const override { return {}; }")
    o("")
    for p in e.params:
        o(f"  {ret(p.type, model)} {p.name}() const {{ return {member(p.name)}; }}")
        if p.mutable:
            emit_scalar_setter(o, p.name, p.type, model, p.notify, e)
    for a in e.attrs:
        emit_attr(o, e, a, model)
    for c in e.colls:
        emit_coll_decl(o, e, c, model)
    for name, types in e.notifications:
        params = ", ".join(f"{t.text} const& a{i}" for i, t in enumerate(types))
        args = ", ".join(["&NotifieeConst::" + name] + [f"a{i}" for i in range(len(types))])
        o(f"  void {name}Notify({params}) const {{ notify({args}); }}")
    for c in e.code:
        o(c)
    if e.replicated:
        replica.check_replicated(e, model)
        o("")
        o("  // The attribute-log replication of this type (Mosk/Replication.h).")
        o("  static Mosk::ReplicaOps const& replicaOps();")
    if e.in_tree:
        o("")
        o("  // Links the element into the ordered collection that holds it.")
        o("  Mosk::RbTreeHook rbTreeHook_;")
    o("")
    o(" private:")
    if e.replicated:
        o(f"  friend class {n}Log;")
    for p in e.params:
        const = "" if p.mutable else " const"
        o(f"  {p.type.text}{const} {member(p.name)};")
    for a in e.attrs:
        init = f"{{{a.default}}}" if a.default is not None else "{}"
        o(f"  {a.type.text} {member(a.name)}{init};")
    for c in e.colls:
        o(f"  {coll_types(c, model)} {member(c.name)};")
    o("};")
    o("")
    fparams = "Mosk::Name name" if e.named else elem_ctor_params(e, model)
    if e.named and e.default_name:
        fparams += f" = {e.default_name}"
    fargs = "std::move(name)" if e.named else elem_ctor_args(e)
    o(f"inline Mosk::Ptr<{n}> {lower_first(n)}Factory({fparams}) {{")
    o(f"  return Mosk::Ptr<{n}>(new {n}({fargs}));")
    o("}")
    o("")


def write_check(o, e, indent="    "):
    """A mutator of a replicated type refuses to write a mounted read-only copy."""
    if e.replicated:
        o(f"{indent}writeCheck();")


def emit_scalar_setter(o, name, t, model, notify, e):
    o(f"  void {name}Is({t.param(model)} value) {{")
    write_check(o, e)
    o(f"    if ({member(name)} == value) return;")
    o(f"    {member(name)} = value;")
    if notify:
        o(f"    notify(&NotifieeConst::on{cap(name)});")
    o("  }")


def emit_attr(o, e, a, model):
    t = a.type
    if t.is_ptr:
        pconst = " const" if t.pointee_const else ""
        o(f"  Mosk::Ptr<{t.pointee} const> {a.name}() const {{ return {member(a.name)}; }}")
        if not t.pointee_const:
            o(f"  Mosk::Ptr<{t.pointee}> {a.name}() {{ return {member(a.name)}; }}")
        o(f"  void {a.name}Is(Mosk::Ptr<{t.pointee}{pconst}> const& value) {{")
        write_check(o, e)
        if not a.nullable:
            o("    if (!value) {")
            o(f"      throw Mosk::RangeException(Mosk::nullMutatorMessage(\"{a.name}\", "
              f"\"{e.qualified}\"));")
            o("    }")
        o(f"    if ({member(a.name)} == value) return;")
        o(f"    {member(a.name)} = value;")
        if a.notify:
            o(f"    notify(&NotifieeConst::on{cap(a.name)});")
        o("  }")
        return
    o(f"  {ret(t, model)} {a.name}() const {{ return {member(a.name)}; }}")
    emit_scalar_setter(o, a.name, t, model, a.notify, e)
    if a.counter:
        o(f"  void {a.name}Inc({t.param(model)} delta) {{ {a.name}Is({member(a.name)} + delta); }}")


def emit_coll_decl(o, e, c, model):
    k = c.key.param(model)
    nm, C = c.name, c.cap
    mb = member(nm)
    ty = coll_types(c, model)
    notify = (lambda key: notify_call(c, c.key.text, key)) if c.notify else (lambda key: "")
    o("")
    o(f"  // {nm}")
    if c.kind == "table":
        emit_table_decl(o, e, c, model)
        return
    if c.kind == "array":
        o(f"  // Positions holding a value.")
        o(f"  U32 {nm}Count() const {{ return {mb}.count(); }}")
    else:
        o(f"  using {C}IterConst = {ty}::CursorConst;")
        if c.kind == "entity":
            o(f"  using {C}Iter = {ty}::Cursor;")
        o(f"  U32 {nm}Count() const {{ return {mb}.size(); }}")
    if c.kind in ("value", "ptr"):
        o(f"  {C}IterConst {nm}Iter() const {{ return {mb}.cursor(); }}")
        o(f"  // Starts at `key`, or where it would be when absent.")
        o(f"  {C}IterConst {nm}Iter({k} key) const {{ return {mb}.cursorAt(key); }}")
    elif c.kind == "entity":
        o(f"  {C}IterConst {nm}IterConst() const {{ return {mb}.cursor(); }}")
        o(f"  {C}Iter {nm}Iter() {{ return {mb}.cursor(); }}")
        o(f"  // Starts at `key`, or where it would be when absent.")
        o(f"  {C}IterConst {nm}IterConst({k} key) const {{ return {mb}.cursorAt(key); }}")
    if c.kind == "value":
        v = c.value
        if v.text == "bool":
            o(f"  bool {nm}({k} key) const {{")
            o(f"    bool const* v = {mb}.find(key);")
            o("    return v != nullptr && *v;")
            o("  }")
        elif c.ordefault:
            o(f"  // The value of `key`, or the empty value when absent.")
            o(f"  {v.text} {nm}({k} key) const {{")
            o(f"    auto const* v = {nm}_.find(key);")
            o(f"    return v ? *v : {v.text}();")
            o("  }")
        else:
            o(f"  std::optional<{v.text}> {nm}({k} key) const {{")
            o(f"    auto const* v = {mb}.find(key);")
            o(f"    return v ? std::optional<{v.text}>(*v) : std::nullopt;")
            o("  }")
        # A collection keyed by a field of its value takes the value alone.
        key, params = "key", f"{k} key, {v.param(model)} value"
        if c.keyed:
            key, params = f"value.{c.keyed}()", f"{v.param(model)} value"
            o(f"  // Stores `value` under its {c.keyed}.")
        o(f"  void {nm}Is({params}) {{")
        write_check(o, e)
        if c.notify:
            o(f"    if ({mb}.set({key}, value) != {ty}::Change::none) {notify(key)}")
        else:
            o(f"    {mb}.set({key}, value);")
        o("  }")
        o(f"  void new{C}({params}) {{")
        write_check(o, e)
        o(f"    {mb}.set({key}, value);")
        o(f"    {notify(key)}")
        o("  }")
        emit_del(o, c, k, notify, e)
    elif c.kind == "ptr":
        pconst = " const" if c.value.pointee_const else ""
        pt = f"Mosk::Ptr<{c.value.pointee}{pconst}>"
        o(f"  {pt} {nm}({k} key) const {{")
        o(f"    auto const* v = {mb}.find(key);")
        o(f"    return v ? *v : {pt}();")
        o("  }")
        o(f"  // Stores `value` under `key`; a null value removes the key.")
        o(f"  void {nm}Is({k} key, {pt} const& value) {{")
        write_check(o, e)
        o("    if (!value) {")
        o(f"      {nm}Del(key);")
        o("      return;")
        o("    }")
        if c.notify:
            o(f"    if ({mb}.set(key, value) != {ty}::Change::none) {notify('key')}")
        else:
            o(f"    {mb}.set(key, value);")
        o("  }")
        o(f"  void new{C}({k} key, {pt} const& value) {{")
        write_check(o, e)
        o("    if (!value) {")
        o(f"      throw Mosk::RangeException(Mosk::nullMutatorMessage(\"{nm}\", \"{e.qualified}\"));")
        o("    }")
        o(f"    {mb}.set(key, value);")
        o(f"    {notify('key')}")
        o("  }")
        emit_del(o, c, k, notify, e)
    elif c.kind == "array":
        v = c.value
        o(f"  {ret(v, model)} {nm}({k} index) const {{ return {mb}.at(index); }}")
        o(f"  void {nm}Is({k} index, {v.param(model)} value) {{")
        write_check(o, e)
        o(f"    if ({mb}.set(index, value)) {notify('index')}")
        o("  }")
        o(f"  void {nm}Del({k} index) {{")
        write_check(o, e)
        o(f"    if ({mb}.erase(index)) {notify('index')}")
        o("  }")
        o(f"  void {nm}DelAll() {{")
        o(f"    for (U32 i = 0; i < {c.capacity}; ++i) {{")
        o(f"      if (!Mosk::isEmptyValue({mb}[i])) {nm}Del({c.key.text}(i));")
        o("    }")
        o("  }")
        o(f"  void {nm}Notify({k} index) const {{ {notify('index') or ';'} }}")
    elif c.kind == "entity":
        el = c.elem
        o(f"  Mosk::Ptr<{el.name} const> {nm}({k} key) const {{ return {mb}.find(key); }}")
        o(f"  Mosk::Ptr<{el.name}> {nm}({k} key) {{ return {mb}.find(key); }}")
        if c.inserting:
            o(f"  // Inserts `element` under its key, replacing another element of that key.")
            o(f"  void {nm}Is(Mosk::Ptr<{el.name}> const& element);")
            o(f"  void new{C}(Mosk::Ptr<{el.name}> const& element) {{ {nm}Is(element); }}")
        else:
            ps = elem_ctor_params(el, model)
            o(f"  // Returns the element of this key, creating it when absent; an existing element")
            o(f"  // takes the mutable arguments and must agree on the others.")
            o(f"  Mosk::Ptr<{el.name}> {nm}Is({ps});")
            o(f"  // Creates a fresh element, replacing any element of this key.")
            o(f"  Mosk::Ptr<{el.name}> new{C}({ps});")
        o(f"  void {nm}Del({k} key);")
        o(f"  void {nm}DelAll();")
        o(f"  void {nm}Notify({k} key) const {{ {notify('key') or ';'} }}")
    if c.notifyall:
        o(f"  void {nm}NotifyCollection() const {{")
        o(f"    notify(static_cast<void (NotifieeConst::*)()>(&NotifieeConst::on{C}));")
        o("  }")


def emit_table_decl(o, e, c, model):
    """A keyed table of fixed-layout records (Skerry): records are copied out on reading."""
    k = c.key.param(model)
    nm, C = c.name, c.cap
    r = c.value.text
    ty = coll_types(c, model)
    note = notify_call(c, c.key.text, "key")
    rnote = notify_call(c, c.key.text, f"Skerry::RecordTraits<{r}>::key(record)")
    o(f"  using {C}IterConst = Skerry::KeyCursor<{c.key.text}, {r}>;")
    o(f"  U32 {nm}Count() const {{ return {nm}_.count(); }}")
    o(f"  // The keys present, in table order; the walk ends early when the table is corrupt.")
    o(f"  {C}IterConst {nm}Iter() const {{ return {C}IterConst({nm}_); }}")
    o(f"  // The reader side of the table, as another process would mount it.")
    o(f"  Skerry::TableReader<{c.key.text}, {r}> const& {nm}Reader() const {{ return {nm}_; }}")
    o(f"  // Reads the table through `mount` (a table another process writes) instead of the records")
    o(f"  // held here; null goes back to them. Writing a mounted table raises.")
    o(f"  void {nm}MountIs(Mosk::Ptr<Skerry::TableMount<{c.key.text}, {r}> const> mount) {{")
    o(f"    {nm}_.mountIs(std::move(mount));")
    o("  }")
    o(f"  // A validated copy of the record of `key`, or nothing when absent.")
    o(f"  std::optional<{r}> {nm}({k} key) const {{ return Skerry::readRecord({nm}_, key); }}")
    o(f"  // Inserts or replaces the record under its key; notifies only on a real change.")
    o(f"  void {nm}Is({r} const& record) {{")
    o(f"    if ({nm}_.put(record)) {rnote}")
    o("  }")
    o(f"  // Stores a fresh record under its key and returns the stored record, for the writer to")
    o(f"  // fill in place before {nm}Commit.")
    o(f"  {r}& new{C}({r} const& record) {{")
    o(f"    {r}& stored = {nm}_.insert(record);")
    o(f"    {rnote}")
    o("    return stored;")
    o("  }")
    o(f"  // Publishes the record stored under `record`'s key (copying `record` in when it is not")
    o(f"  // the stored one); raises the range error when no record has that key.")
    o(f"  void {nm}Commit({r} const& record) {{")
    o(f"    {nm}_.commit(record);")
    o(f"    {rnote}")
    o("  }")
    o(f"  void {nm}Del({k} key) {{")
    o(f"    if ({nm}_.erase(key)) {note}")
    o("  }")
    o(f"  void {nm}DelAll() {{")
    o("    if (!hasNotifiees()) {")
    o(f"      {nm}_.clear();")
    o("      return;")
    o("    }")
    o("    // Walks the keys directly: a corrupt table is emptied all the same.")
    o(f"    {c.key.text} key;")
    o(f"    for (bool more = {nm}_.keyAfter(nullptr, key); more;) {{")
    o(f"      {c.key.text} next;")
    o(f"      more = {nm}_.keyAfter(&key, next);")
    o(f"      {nm}Del(key);")
    o("      key = next;")
    o("    }")
    o("  }")
    o(f"  void {nm}Notify({k} key) const {{ {note} }}")
    o(f"  // True once the table service has found the table damaged.")
    o(f"  bool {nm}Corrupt() const {{ return {nm}_.corrupt(); }}")
    o(f"  // Marks the table damaged (or repaired); readers hear on{C}Corrupt() when it turns bad.")
    o(f"  void {nm}CorruptIs(bool corrupt) {{")
    o(f"    if ({nm}_.corrupt() == corrupt) return;")
    o(f"    {nm}_.corruptIs(corrupt);")
    o(f"    if (corrupt) notify(&NotifieeConst::on{C}Corrupt);")
    o("  }")
    if c.notifyall:
        o(f"  void {nm}NotifyCollection() const {{")
        o(f"    notify(static_cast<void (NotifieeConst::*)()>(&NotifieeConst::on{C}));")
        o("  }")


def emit_del(o, c, k, notify, e):
    nm, mb = c.name, member(c.name)
    o(f"  void {nm}Del({k} key) {{")
    write_check(o, e)
    o(f"    if ({mb}.erase(key)) {notify('key')}")
    o("  }")
    o(f"  void {nm}DelAll() {{")
    write_check(o, e)
    o("    if (!hasNotifiees()) {")
    o(f"      {mb}.clear();")
    o("      return;")
    o("    }")
    o(f"    for (auto c = {mb}.cursor(); c; ++c) {nm}Del(c.key());")
    o("  }")
    o(f"  void {nm}Notify({k} key) const {{ {notify('key') or ';'} }}")


def emit_entity_source(o, e, model):
    n = e.name
    if e.named:
        o(f"{n}::{n}(Mosk::Name name) : {e.base or 'Mosk::NamedEntity'}(std::move(name)) {{}}")
    else:
        inits = ", ".join(f"{member(p.name)}({p.name})" for p in e.params)
        o(f"{n}::{n}({elem_ctor_params(e, model)}){' : ' + inits if inits else ''} {{}}")
    o("")
    ent_colls = [c for c in e.colls if c.kind == "entity"]
    if ent_colls:
        o(f"{n}::~{n}() {{")
        for c in ent_colls:
            o(f"  for (auto c = {member(c.name)}.cursor(); c; ++c) c->parentIs(nullptr);")
        o("}")
        o("")
    for c in ent_colls:
        emit_entity_coll_source(o, e, c, model)


def emit_entity_coll_source(o, e, c, model):
    n, el, nm, C = e.name, c.elem, c.name, c.cap
    mb = member(nm)
    k = c.key.param(model)
    kp = el.key_param
    note = notify_call(c, c.key.text, "key") if c.notify else ""
    if c.inserting:
        o(f"void {n}::{nm}Is(Mosk::Ptr<{el.name}> const& element) {{")
        write_check(o, e, "  ")
        o("  if (!element) {")
        o(f"    throw Mosk::RangeException(Mosk::nullMutatorMessage(\"{nm}\", \"{e.qualified}\"));")
        o("  }")
        o(f"  {c.key.text} const& elementKey = element->{kp.name}();")
        o(f"  if ({mb}.find(elementKey) == element.ptr()) return;")
        o(f"  if (auto old = {mb}.erase(elementKey)) old->parentIs(nullptr);")
        o("  element->parentIs(this);")
        o(f"  {mb}.insert(element);")
        if c.notify:
            o(f"  {notify_call(c, c.key.text, 'elementKey')}")
        o("}")
        o("")
    else:
        ps = elem_ctor_params(el, model)
        args = elem_ctor_args(el)
        o(f"Mosk::Ptr<{el.name}> {n}::{nm}Is({ps}) {{")
        write_check(o, e, "  ")
        o(f"  if ({el.name}* existing = {mb}.find({kp.name})) {{")
        for p in el.params:
            if p.key or p.mutable:
                continue
            if el.pointer_interface:
                o(f"    if (!(existing->{p.name}() == {p.name})) {{")
                o(f"      throw Mosk::NameInUseException(Mosk::pointerInUseMessage(\"{p.name}\", "
                  f"Mosk::valueToStrep({p.name}), Mosk::valueToStrep(existing->{p.name}())));")
            else:
                o(f"    if (!(existing->{p.name}() == {p.name})) {{")
                o(f"      throw Mosk::NameInUseException(Mosk::nameInUseMessage(existing->name(), "
                  f"\"{p.name}\", Mosk::valueToStrep({p.name}), "
                  f"Mosk::valueToStrep(existing->{p.name}())));")
            o("    }")
        for p in el.params:
            if p.mutable:
                o(f"    existing->{p.name}Is({p.name});")
        o("    return existing;")
        o("  }")
        o(f"  return new{C}({args});")
        o("}")
        o("")
        o(f"Mosk::Ptr<{el.name}> {n}::new{C}({ps}) {{")
        write_check(o, e, "  ")
        o(f"  Mosk::Ptr<{el.name}> element = {lower_first(el.name)}Factory({args});")
        o(f"  if (auto old = {mb}.erase({kp.name})) old->parentIs(nullptr);")
        o("  element->parentIs(this);")
        o(f"  {mb}.insert(element);")
        if c.notify:
            o(f"  {notify_call(c, c.key.text, kp.name)}")
        o("  return element;")
        o("}")
        o("")
    o(f"void {n}::{nm}Del({k} key) {{")
    write_check(o, e, "  ")
    o(f"  Mosk::Ptr<{el.name}> old = {mb}.erase(key);")
    o("  if (!old) return;")
    o("  old->parentIs(nullptr);")
    if note:
        o(f"  {note}")
    o("}")
    o("")
    o(f"void {n}::{nm}DelAll() {{")
    write_check(o, e, "  ")
    o(f"  for (auto c = {mb}.cursor(); c; ++c) {nm}Del(c.key());")
    o("}")
    o("")


# ----------------------------------------------------------------------------------------------
# Files


def order_decls(model):
    """Values and enums in declaration order, then entities with elements before owners."""
    values = [d for d in model.decls if d.kind != "entity"]
    ents = model.entities()
    done, out = set(), []

    def visit(e, stack):
        if e.name in done:
            return
        if e.name in stack:
            raise MoskError(f"{model.path}:{e.line}: {e.name} contains itself")
        stack.add(e.name)
        for c in e.colls:
            if c.elem is not None:
                visit(c.elem, stack)
        stack.discard(e.name)
        done.add(e.name)
        out.append(e)

    for e in ents:
        visit(e, set())
    return values + out


class Namespaces:
    def __init__(self, o):
        self.o, self.current = o, None

    def enter(self, ns):
        if ns == self.current:
            return
        self.leave()
        if ns:
            self.o(f"namespace {ns} {{")
            self.o("")
        self.current = ns

    def leave(self):
        if self.current:
            self.o(f"}}  // namespace {self.current}")
            self.o("")
        self.current = None


def emit_header(model, decl_path):
    o = Out()
    o(f"// Generated by moskgen from {decl_path.split('/')[-2]}/{decl_path.split('/')[-1]}. "
      "Do not edit.")
    o("#pragma once")
    o("")
    o("#include <optional>")
    o("#include <ostream>")
    o("#include <string>")
    o("#include <string_view>")
    o("")
    o('#include "Mosk/Model.h"')
    if any(e.replicated for e in model.entities()):
        o('#include "Mosk/Replication.h"')
    if any(c.kind == "table" for e in model.entities() for c in e.colls):
        o('#include "Skerry/Table.h"')
    for inc in model.includes:
        o(f'#include "{inc}"')
    o("")
    ns = Namespaces(o)
    ents = model.entities()
    for e in ents:
        ns.enter(e.ns)
        o(f"class {e.name};")
    if ents:
        o("")
    for d in order_decls(model):
        ns.enter(d.ns)
        if d.kind == "alias":
            o(f"using {d.name} = {d.target};")
            o("")
        elif d.kind == "value":
            (emit_scalar if d.scalar else emit_composite)(o, d, model)
        elif d.kind == "enum":
            emit_enum(o, d, model)
            ns.leave()
            emit_enum_traits(o, d)
        else:
            emit_entity(o, d, model)
    ns.leave()
    return o.text()


def emit_source(model, decl_path, include_name):
    o = Out()
    o(f"// Generated by moskgen from {decl_path.split('/')[-2]}/{decl_path.split('/')[-1]}. "
      "Do not edit.")
    o(f'#include "{include_name}"')
    o("")
    o("#include <any>")
    o("#include <limits>")
    o("")
    o('#include "Mosk/Reflection.h"')
    o('#include "Mosk/Replication.h"')
    o("")
    ns = Namespaces(o)
    for d in order_decls(model):
        if d.kind == "value" and not d.scalar:
            ns.enter(d.ns)
            emit_composite_source(o, d, model)
        elif d.kind == "enum":
            ns.enter(d.ns)
            emit_enum_source(o, d)
        elif d.kind == "entity":
            ns.enter(d.ns)
            emit_entity_source(o, d, model)
    for e in replica.replicated_order(model):
        ns.enter(e.ns)
        replica.emit_replica_source(o, e, model)
    ns.leave()
    o("// Type records, registered by qualified name when the library is loaded.")
    for d in order_decls(model):
        if d.kind == "alias":
            continue
        ns.enter(d.ns)
        if d.kind == "value":
            o("namespace {")
            replica.emit_value_record(o, d, model)
            o("}  // namespace")
        elif d.kind == "enum":
            o("namespace {")
            replica.emit_enum_record(o, d)
            o("}  // namespace")
        else:
            o("namespace {")
            replica.emit_entity_record(o, d, model)
            o("}  // namespace")
        o("")
    ns.leave()
    return o.text()
