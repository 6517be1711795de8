"""Emits the attribute-log forms of value types, the reflection records of every declared type
and the replica code (writer node, full and delta writers, two-pass reader) of entities declared
`replicated`. The behaviour lives in runtime/Mosk/AttributeLog.h, Replication.h and
Reflection.h; this module only spells out names."""

from model import BUILTINS, MoskError


def cap(name):
    return name[0].upper() + name[1:]


def lower_first(name):
    return name[0].lower() + name[1:]


def member(name):
    return name[:-1] + "Attr_" if name.endswith("_") else name + "_"


# ----------------------------------------------------------------------------------------------
# Value types


def scalar_log_members(o, v):
    """Inline logWrite/logRead of a scalar wrapper: its number at its own width; reading runs
    the constructor's range check."""
    u = v.underlying
    o(f"  void logWrite(Mosk::LogWriter& w) const {{ Mosk::logWrite(w, value_); }}")
    o(f"  static {v.name} logRead(Mosk::LogReader& r) {{")
    o(f"    return {v.name}(Mosk::logRead<{u}>(r));")
    o("  }")


def composite_log_decls(o, v):
    o("  // Attribute-log form: the fields in declaration order.")
    o("  void logWrite(Mosk::LogWriter& w) const;")
    o(f"  static {v.name} logRead(Mosk::LogReader& r);")


def composite_log_source(o, v):
    n = v.name
    o(f"void {n}::logWrite(Mosk::LogWriter& w) const {{")
    for f in v.fields:
        o(f"  Mosk::logWrite(w, {f.name}_);")
    o("}")
    o("")
    o(f"{n} {n}::logRead(Mosk::LogReader& r) {{")
    o(f"  {n} v;")
    for f in v.fields:
        o(f"  v.{f.name}_ = Mosk::logReadField<{f.type.text}>(r, \"{f.name}\");")
    if v.cached_hash:
        o("  v.hash_ = v.computeHash();")
    o("  return v;")
    o("}")
    o("")


def enum_log_traits(o, e):
    """An enumeration travels as a 32-bit word whatever its width; an unknown value raises the
    range error on reading."""
    q = e.qualified
    o("template <>")
    o(f"struct LogTraits<{q}> {{")
    o(f"  static void write(LogWriter& w, {q} v) {{ w.u32(static_cast<U32>(v)); }}")
    o(f"  static {q} read(LogReader& r) {{ return {e.ns}::{e.name}Instance(r.u32(\"{e.name}\")); }}")
    o("};")


# ----------------------------------------------------------------------------------------------
# Reflection records


def attr_ids(e):
    """Every attribute of an entity with its id: parameters, then scalars and references, then
    collections, in declaration order."""
    out = []
    for p in e.params:
        out.append(("param", p))
    for a in e.attrs:
        out.append(("attr", a))
    for c in e.colls:
        out.append(("coll", c))
    if len(out) > 64:
        raise MoskError(f"{e.name}: more than 64 attributes")
    return out


def emit_value_record(o, v, model):
    n, q = v.name, v.qualified
    rec = f"{lower_first(n)}Record"
    o(f"Mosk::TypeRecord const {rec}(")
    o(f"    \"{q}\", Mosk::TypeKind::value,")
    # A composite with a hand-written text form lists its fields without accessors: its fields
    # need not have text forms of their own.
    bare = v.custom_text and not v.scalar
    if v.scalar:
        o("    {},")
    elif bare:
        o("    {")
        for i, f in enumerate(v.fields):
            o(f"        Mosk::AttributeInfo{{{i}, \"{f.name}\", \"{f.type.text}\", "
              "Mosk::AttributeKind::field, nullptr, nullptr, nullptr, nullptr},")
        o("    },")
    else:
        o("    {")
        for i, f in enumerate(v.fields):
            o(f"        Mosk::attributeInfo<&{n}::{f.name}, &{n}::{f.name}Is>({i}, \"{f.name}\", "
              f"\"{f.type.text}\", Mosk::AttributeKind::field),")
        o("    },")
    o("    {")
    if not bare:
        emit_construct_value(o, v)
    o(f"     .fromText = [](std::string_view t) {{ return std::any(Mosk::parse<{n}>(t)); }},")
    if v.scalar:
        u = v.underlying
        o(f"     .fromRaw = [](U64 raw) {{ return std::any({n}(Mosk::rawAs<{u}>(raw, \"{q}\"))); }},")
    o(f"     .fromLog = [](std::vector<U8> const& b) {{ return std::any(Mosk::logParse<{n}>(b)); }},")
    o(f"     .text = [](std::any const& v) {{")
    o(f"       return Mosk::valueToStrep(Mosk::anyValue<{n}>(v, \"{q}\"));")
    o("     }});")
    o("")


def emit_construct_value(o, v):
    n, q = v.name, v.qualified
    o("     .constructValue = [](Mosk::TypeRecord::Args const& a) {")
    if v.scalar:
        o(f"       Mosk::checkArgCount(a, 1, \"{q}\");")
        o(f"       return std::any(Mosk::parse<{n}>(a[0]));")
    else:
        o(f"       Mosk::checkArgCount(a, {len(v.fields)}, \"{q}\");")
        args = ", ".join(f"Mosk::parse<{f.type.text}>(a[{i}])" for i, f in enumerate(v.fields))
        o(f"       return std::any({n}({args}));")
    o("     },")


def emit_enum_record(o, e):
    n, q = e.name, e.qualified
    o(f"Mosk::TypeRecord const {lower_first(n)}Record(")
    o(f"    \"{q}\", Mosk::TypeKind::enumeration, {{}},")
    o(f"    {{.fromText = [](std::string_view t) {{ return std::any(Mosk::parse<{n}>(t)); }},")
    o(f"     .fromRaw = [](U64 raw) {{")
    o(f"       if (raw > 0xffffffffu) throw Mosk::RangeException(\"{n} value \" + "
      f"std::to_string(raw) + \" not allowed\");")
    o(f"       return std::any({n}Instance(static_cast<U32>(raw)));")
    o("     },")
    o(f"     .fromLog = [](std::vector<U8> const& b) {{ return std::any(Mosk::logParse<{n}>(b)); }},")
    o(f"     .text = [](std::any const& v) {{ return Mosk::valueToStrep(Mosk::anyValue<{n}>(v, "
      f"\"{q}\")); }}}});")
    o("")


def emit_entity_record(o, e, model):
    n, q = e.name, e.qualified
    o(f"Mosk::TypeRecord const {lower_first(n)}Record(")
    o(f"    \"{q}\", Mosk::TypeKind::entity,")
    o("    {")
    for i, (kind, a) in enumerate(attr_ids(e)):
        t = a.type.text if kind != "coll" else f"{a.key.text} -> {a.value.text}"
        if kind == "param":
            setter = f", &{n}::{a.name}Is" if a.mutable else ""
            o(f"        Mosk::attributeInfo<&{n}::{a.name}{setter}>({i}, \"{a.name}\", \"{t}\", "
              "Mosk::AttributeKind::parameter),")
        elif kind == "attr":
            if a.type.is_ptr:
                getter = f"static_cast<Mosk::Ptr<{a.type.pointee} const> ({n}::*)() const>(&{n}::{a.name})"
                o(f"        Mosk::attributeInfo<{getter}>({i}, \"{a.name}\", \"{t}\", "
                  "Mosk::AttributeKind::reference),")
            else:
                o(f"        Mosk::attributeInfo<&{n}::{a.name}, &{n}::{a.name}Is>({i}, \"{a.name}\", "
                  f"\"{t}\", Mosk::AttributeKind::scalar),")
        else:
            c = a
            if c.kind in ("value", "ptr"):
                it = f"static_cast<{n}::{c.cap}IterConst ({n}::*)() const>(&{n}::{c.name}Iter)"
                o(f"        Mosk::collectionInfo<{it}, true>({i}, \"{c.name}\", \"{t}\"),")
            elif c.kind == "entity":
                it = f"static_cast<{n}::{c.cap}IterConst ({n}::*)() const>(&{n}::{c.name}IterConst)"
                o(f"        Mosk::collectionInfo<{it}, false>({i}, \"{c.name}\", \"{t}\"),")
            elif c.kind == "array":
                at = f"static_cast<{c.value.text} ({n}::*)({c.key.param(model)}) const>(&{n}::{c.name})"
                if not (c.value.text in BUILTINS or model.is_enum(c.value.text)):
                    at = f"static_cast<{c.value.text} const& ({n}::*)({c.key.param(model)}) const>(&{n}::{c.name})"
                o(f"        Mosk::arrayInfo<{at}, {c.capacity}>({i}, \"{c.name}\", \"{t}\"),")
            else:
                o(f"        Mosk::AttributeInfo{{{i}, \"{c.name}\", \"{t}\", "
                  "Mosk::AttributeKind::collection, nullptr, nullptr, nullptr, nullptr},")
    o("    },")
    o("    {.construct = [](Mosk::TypeRecord::Args const& a) -> Mosk::Ptr<Mosk::Entity> {")
    if e.named:
        o(f"       Mosk::checkArgCount(a, 1, \"{q}\");")
        o(f"       return {lower_first(n)}Factory(a[0]);")
    elif any(p.type.is_ptr for p in e.params):
        o(f"       (void)a;")
        o(f"       throw Mosk::RangeException(\"{q} takes references: no construction from text\");")
    else:
        o(f"       Mosk::checkArgCount(a, {len(e.params)}, \"{q}\");")
        args = ", ".join(f"Mosk::parse<{p.type.text}>(a[{i}])" for i, p in enumerate(e.params))
        o(f"       return {lower_first(n)}Factory({args});")
    if e.replicated:
        o(f"     }},\n     .replica = &{n}::replicaOps}});")
    else:
        o("     }});")
    o("")


# ----------------------------------------------------------------------------------------------
# Replicated entities


def check_replicated(e, model):
    for p in e.params:
        if p.type.is_ptr:
            raise MoskError(f"{model.path}:{p.line}: replicated {e.name}: parameter {p.name} is "
                            "a reference")
        if p.mutable and not p.notify:
            raise MoskError(f"{model.path}:{p.line}: replicated {e.name}: {p.name} must notify")
    for a in e.attrs:
        if not a.notify:
            raise MoskError(f"{model.path}:{a.line}: replicated {e.name}: {a.name} must notify")
        if a.type.is_ptr and a.bykey is None and (a.pointee is None or not a.pointee.anonymous):
            raise MoskError(f"{model.path}:{a.line}: replicated {e.name}: reference {a.name} "
                            "needs `bykey <collection>` or an anonymous pointee")
    for c in e.colls:
        if c.kind in ("ptr", "table"):
            raise MoskError(f"{model.path}:{c.line}: replicated {e.name}: {c.name} holds "
                            "references or records that the log does not carry")
        if not c.notify:
            raise MoskError(f"{model.path}:{c.line}: replicated {e.name}: {c.name} must notify")


def coll_extra(c):
    """Hasher and Less arguments of a collection's runtime helpers."""
    if not (c.hasher or c.less):
        return ""
    h = c.hasher or f"Mosk::KeyHash<{c.key.text}>"
    return f", {h}" + (f", {c.less}" if c.less else "")


def seen_type(c):
    return f"Mosk::KeySeen<{c.key.text}{coll_extra(c)}>"


def note_key(c, e):
    return (f"[&apply, p = Mosk::Ptr<{e.name} const>(e)](auto const& k) {{ "
            f"apply.later([p, k] {{ p->{c.name}Notify(k); }}); }}")


def note_attr(e, name):
    return (f"apply.later([p = Mosk::Ptr<{e.name} const>(e)] {{ Mosk::ReplicaAccess::notify("
            f"*p, &{e.name}::NotifieeConst::on{cap(name)}); }});")


def emit_replica_source(o, e, model):
    n, q = e.name, e.qualified
    L = f"{n}Log"
    ids = attr_ids(e)
    kp = e.key_param
    scalars = [(i, a) for i, (k, a) in enumerate(ids)
               if (k == "param" and a.mutable) or (k == "attr" and not a.type.is_ptr)]
    refs = [(i, a) for i, (k, a) in enumerate(ids) if k == "attr" and a.type.is_ptr]
    colls = [(i, a) for i, (k, a) in enumerate(ids) if k == "coll"]
    coll_id = {c.name: i for i, c in colls}

    o(f"// Attribute-log replication of {n}.")
    o(f"class {L} {{")
    o(" public:")
    o(f"  static constexpr char const* type = \"{q}\";")
    o("  class Node;")
    if kp:
        o("  // The constructor arguments of an element, in declaration order.")
        o("  struct Args {")
        for p in e.params:
            o(f"    {p.type.text} {p.name};")
        o("  };")
        o(f"  static void writeArgs(Mosk::LogWriter& w, {n} const& e) {{")
        for p in e.params:
            o(f"    Mosk::logWrite(w, e.{p.name}());")
        o("  }")
        o("  static Args readArgs(Mosk::LogReader& r) {")
        inits = ", ".join(f"Mosk::logReadField<{p.type.text}>(r, \"{p.name}\")" for p in e.params)
        o(f"    return Args{{{inits}}};")
        o("  }")
        o(f"  static {kp.type.text} const& keyOf(Args const& a) {{ return a.{kp.name}; }}")
        fixed = [p for p in e.params if not p.key and not p.mutable]
        cond = " && ".join(f"e.{p.name}() == a.{p.name}" for p in fixed) or "true"
        o(f"  static bool sameFixed({n} const& e, Args const& a) {{")
        if not fixed:
            o("    (void)e;")
            o("    (void)a;")
        o(f"    return {cond};")
        o("  }")
        o(f"  static Mosk::Ptr<{n}> make(Args const& a) {{")
        o(f"    return {lower_first(n)}Factory({', '.join('a.' + p.name for p in e.params)});")
        o("  }")
        o(f"  static void assign({n}& target, Args const& a, Mosk::LogApply& apply) {{")
        mut = [p for p in e.params if p.mutable]
        if not mut:
            o("    (void)target;")
            o("    (void)a;")
            o("    (void)apply;")
        else:
            o(f"    {n}* e = &target;")
        for p in mut:
            o(f"    if (!(e->{member(p.name)} == a.{p.name})) {{")
            o(f"      e->{member(p.name)} = a.{p.name};")
            o(f"      {note_attr(e, p.name)}")
            o("    }")
        o("  }")
    elif not e.named:
        o(f"  static Mosk::Ptr<{n}> make() {{ return {lower_first(n)}Factory(); }}")
    o(f"  static void writeFull(Mosk::LogWriter& w, {n} const& e);")
    o(f"  static void read(Mosk::LogReader& r, {n}* e, Mosk::LogApply& apply);")
    o("};")
    o("")

    # The writer's node.
    o(f"class {L}::Node final : public {n}::NotifieeConst, public Mosk::LogNode {{")
    o(" public:")
    o(f"  Node({n} const& e, Mosk::LogNode* owner, U8 slot) : Mosk::LogNode(owner, slot) {{")
    o(f"    notifierIs(Mosk::Ptr<{n} const>(&e));")
    for i, c in colls:
        if c.kind == "entity":
            o(f"    for (auto c = e.{member(c.name)}.cursor(); c; ++c) {{")
            o(f"      {c.name}Nodes_.track(c.key(), c.ptr().ptr(), this, {i});")
            o("    }")
    o("  }")
    o(f"  {n} const& entity() const {{ return static_cast<{n} const&>(*notifierEntity()); }}")
    o("")
    for i, (k, a) in enumerate(ids):
        if k == "param" and a.mutable or k == "attr":
            o(f"  void on{cap(a.name)}() override {{ markAttr({i}); }}")
    for i, c in colls:
        if c.notifyall:
            o(f"  using {n}::NotifieeConst::on{c.cap};")
        o(f"  void on{c.cap}({c.key.text} const& key) override {{")
        if c.kind == "entity":
            o(f"    {c.name}Nodes_.track(key, entity().{member(c.name)}.find(key), this, {i});")
        o(f"    {c.name}Marks_.mark(key, Mosk::LogMark::full);")
        o("    markDirty();")
        o("  }")
    o("")
    o("  void writeDelta(Mosk::LogWriter& w) override;")
    o("  void clearDirty() override;")
    o("")
    o(" private:")
    o("  void childDirty(U8 slot, Mosk::LogNode& child) override;")
    o("")
    for i, c in colls:
        if c.tree:
            o(f"  Mosk::OrderedDirtyKeys<{c.key.text}{', ' + c.less if c.less else ''}> "
              f"{c.name}Marks_;")
        else:
            o(f"  Mosk::DirtyKeys<{c.key.text}{coll_extra(c)}> {c.name}Marks_;")
        if c.kind == "entity":
            o(f"  Mosk::LogChildren<{c.key.text}, {c.elem.name}Log::Node{coll_extra(c)}> "
              f"{c.name}Nodes_;")
    o("};")
    o("")

    # writeDelta: scalars, collections, references.
    o(f"void {L}::Node::writeDelta(Mosk::LogWriter& w) {{")
    o(f"  [[maybe_unused]] {n} const& e = entity();")
    for i, a in scalars:
        o(f"  if (attrMarked({i})) {{")
        o(f"    Mosk::writeLogRecord(w, Mosk::LogOp::attr, {i});")
        o(f"    Mosk::logWrite(w, e.{a.name}());")
        o("  }")
    for i, c in colls:
        kt = c.key.text
        o(f"  {c.name}Marks_.forEach([&]({kt} const& key, Mosk::LogMark mark) {{")
        if c.kind == "entity":
            o(f"    Mosk::writeElementChange<{c.elem.name}Log>(w, {i}, key, mark, "
              f"e.{member(c.name)}.find(key), {c.name}Nodes_);")
        else:
            o("    (void)mark;")
            o(f"    Mosk::writeKeyChange(w, {i}, key, Mosk::replicaFind(e.{member(c.name)}, key), "
              f"{'true' if c.keyed else 'false'});")
        o("  });")
        o(f"  {c.name}Marks_.clear();")
    for i, a in refs:
        o(f"  if (attrMarked({i})) {{")
        emit_ref_write(o, e, i, a, "    ")
        o("  }")
    o("  w.u8(static_cast<U8>(Mosk::LogOp::end));")
    o("  clearMarks();")
    o("}")
    o("")
    o(f"void {L}::Node::clearDirty() {{")
    for i, c in colls:
        if c.kind == "entity":
            o(f"  {c.name}Marks_.forEach([&]({c.key.text} const& key, Mosk::LogMark) {{")
            o(f"    if (auto* node = {c.name}Nodes_.find(key)) node->clearDirty();")
            o("  });")
        o(f"  {c.name}Marks_.clear();")
    o("  clearMarks();")
    o("}")
    o("")
    o(f"void {L}::Node::childDirty(U8 slot, Mosk::LogNode& child) {{")
    ent = [(i, c) for i, c in colls if c.kind == "entity"]
    if ent:
        o("  switch (slot) {")
        for i, c in ent:
            ekp = c.elem.key_param
            o(f"    case {i}:")
            o(f"      {c.name}Marks_.mark(static_cast<{c.elem.name}Log::Node&>(child).entity()."
              f"{ekp.name}(), Mosk::LogMark::delta);")
            o("      break;")
        o("  }")
    else:
        o("  (void)slot;")
        o("  (void)child;")
    o("  markDirty();")
    o("}")
    o("")

    # writeFull.
    o(f"void {L}::writeFull(Mosk::LogWriter& w, [[maybe_unused]] {n} const& e) {{")
    for i, a in scalars:
        if any(a is p for p in e.params):
            continue  # parameters travel with the element's constructor arguments
        o(f"  Mosk::writeLogRecord(w, Mosk::LogOp::attr, {i});")
        o(f"  Mosk::logWrite(w, e.{a.name}());")
    for i, c in colls:
        if c.kind == "entity":
            o("  {")
            o(f"    Mosk::writeLogRecord(w, Mosk::LogOp::sync, {i});")
            o("    std::size_t at = w.placeholderU32();")
            o("    U32 count = 0;")
            o(f"    for (auto c = e.{member(c.name)}.cursor(); c; ++c, ++count) {{")
            o(f"      {c.elem.name}Log::writeArgs(w, *c);")
            o(f"      {c.elem.name}Log::writeFull(w, *c);")
            o("    }")
            o("    w.patchU32(at, count);")
            o("  }")
        else:
            o(f"  Mosk::writeValueSync(w, {i}, e.{member(c.name)}, "
              f"{'true' if c.keyed else 'false'});")
    for i, a in refs:
        emit_ref_write(o, e, i, a, "  ")
    o("  w.u8(static_cast<U8>(Mosk::LogOp::end));")
    o("}")
    o("")

    # read.
    o(f"void {L}::read(Mosk::LogReader& r, [[maybe_unused]] {n}* e,")
    o("               [[maybe_unused]] Mosk::LogApply& apply) {")
    for i, c in colls:
        o(f"  {seen_type(c)} {c.name}Seen;")
    o("  for (;;) {")
    o("    Mosk::LogRecord rec = Mosk::readLogRecord(r);")
    o("    if (rec.op == Mosk::LogOp::end) return;")
    o("    switch (rec.attr) {")
    for i, a in scalars:
        o(f"      case {i}: {{")
        o(f"        if (rec.op != Mosk::LogOp::attr) Mosk::badLogRecord(r, rec, \"{a.name}\", type);")
        o(f"        auto v = Mosk::logReadField<{a.type.text}>(r, \"{a.name}\");")
        o(f"        if (apply.applying() && !(e->{member(a.name)} == v)) {{")
        o(f"          e->{member(a.name)} = v;")
        o(f"          {note_attr(e, a.name)}")
        o("        }")
        o("        break;")
        o("      }")
    for i, c in colls:
        mp = f"e ? &e->{member(c.name)} : nullptr"
        o(f"      case {i}:")
        if c.kind == "entity":
            o(f"        Mosk::readElementRecord<{c.elem.name}Log, {c.key.text}>(")
            o(f"            r, rec, e, {mp}, {c.name}Seen, apply, \"{c.name}\", type,")
            o(f"            {note_key(c, e)});")
        else:
            v = c.value.text
            keyof = f"[](auto const& v) {{ return v.{c.keyed}(); }}" if c.keyed else "nullptr"
            o(f"        Mosk::readValueRecord<{c.key.text}, {v}>(")
            o(f"            r, rec, {mp}, {c.name}Seen, apply, \"{c.name}\", type, {keyof},")
            o(f"            {note_key(c, e)});")
        o("        break;")
    for i, a in refs:
        o(f"      case {i}: {{")
        emit_ref_read(o, e, i, a, coll_id)
        o("        break;")
        o("      }")
    o("      default:")
    o("        Mosk::unknownLogAttribute(r, rec, type);")
    o("    }")
    o("  }")
    o("}")
    o("")
    o(f"Mosk::ReplicaOps const& {n}::replicaOps() {{")
    o("  static Mosk::ReplicaOps const ops{")
    o(f"      {L}::type,")
    o("      [](Mosk::Entity const& root) -> std::pair<Mosk::Ptr<Mosk::NotifieeBase>, Mosk::LogNode*> {")
    o(f"        auto* node = new {L}::Node(static_cast<{n} const&>(root), nullptr, 0);")
    o("        return {Mosk::Ptr<Mosk::NotifieeBase>(node), node};")
    o("      },")
    o(f"      [](Mosk::LogWriter& w, Mosk::Entity const& root) {{ {L}::writeFull(w, "
      f"static_cast<{n} const&>(root)); }},")
    o(f"      [](Mosk::LogReader& r, Mosk::Entity* root, Mosk::LogApply& apply) {{ {L}::read(r, "
      f"static_cast<{n}*>(root), apply); }}}};")
    o("  return ops;")
    o("}")
    o("")


def emit_ref_write(o, e, i, a, ind):
    mb = member(a.name)
    if a.bykey:
        ekp = a.pointee.key_param
        o(f"{ind}Mosk::writeLogRecord(w, Mosk::LogOp::ptrKey, {i});")
        o(f"{ind}w.u8(e.{mb} ? 1 : 0);")
        o(f"{ind}if (e.{mb}) Mosk::logWrite(w, e.{mb}->{ekp.name}());")
    else:
        o(f"{ind}Mosk::writeLogRecord(w, Mosk::LogOp::ptrValue, {i});")
        o(f"{ind}w.u8(e.{mb} ? 1 : 0);")
        o(f"{ind}if (e.{mb}) {a.pointee.name}Log::writeFull(w, *e.{mb});")


def emit_ref_read(o, e, i, a, coll_id):
    mb = member(a.name)
    ind = "        "
    if a.bykey:
        c = next(c for c in e.colls if c.name == a.bykey)
        cm = member(c.name)
        o(f"{ind}if (rec.op != Mosk::LogOp::ptrKey) Mosk::badLogRecord(r, rec, \"{a.name}\", type);")
        o(f"{ind}std::optional<{c.key.text}> key;")
        o(f"{ind}if (Mosk::logRead<bool>(r)) key = Mosk::logReadField<{c.key.text}>(r, \"{a.name}\");")
        o(f"{ind}if (!apply.applying()) {{")
        if not a.nullable:
            o(f"{ind}  if (!key) r.fail(\"null {a.name} of {e.qualified} not allowed\");")
        o(f"{ind}  if (key && !{c.name}Seen.present(*key, e && e->{cm}.find(*key))) {{")
        o(f"{ind}    r.fail(\"{a.name} names element \" + Mosk::valueToStrep(*key) + "
          f"\" that {c.name} will not hold\");")
        o(f"{ind}  }}")
        o(f"{ind}}} else {{")
        o(f"{ind}  {a.pointee.name}* target = key ? e->{cm}.find(*key) : nullptr;")
        o(f"{ind}  if (e->{mb}.ptr() != target) {{")
        o(f"{ind}    e->{mb} = target;")
        o(f"{ind}    {note_attr(e, a.name)}")
        o(f"{ind}  }}")
        o(f"{ind}}}")
    else:
        p = a.pointee.name
        o(f"{ind}if (rec.op != Mosk::LogOp::ptrValue) Mosk::badLogRecord(r, rec, \"{a.name}\", type);")
        o(f"{ind}if (!Mosk::logRead<bool>(r)) {{")
        if not a.nullable:
            o(f"{ind}  if (!apply.applying()) r.fail(\"null {a.name} of {e.qualified} not allowed\");")
        o(f"{ind}  if (apply.applying() && e->{mb}) {{")
        o(f"{ind}    e->{mb} = nullptr;")
        o(f"{ind}    {note_attr(e, a.name)}")
        o(f"{ind}  }}")
        o(f"{ind}  break;")
        o(f"{ind}}}")
        o(f"{ind}if (!apply.applying()) {{")
        o(f"{ind}  {p}Log::read(r, nullptr, apply);")
        o(f"{ind}  break;")
        o(f"{ind}}}")
        o(f"{ind}Mosk::Ptr<{p}> value = {p}Log::make();")
        o(f"{ind}Mosk::ReplicaAccess::readOnlyIs(*value, true);")
        o(f"{ind}{p}Log::read(r, value.ptr(), apply);")
        o(f"{ind}e->{mb} = value;")
        o(f"{ind}{note_attr(e, a.name)}")


def replicated_order(model):
    """Replicated entities with elements and pointees before their owners."""
    ents = [e for e in model.entities() if e.replicated]
    done, out = set(), []

    def visit(e):
        if e.name in done:
            return
        done.add(e.name)
        for c in e.colls:
            if c.elem is not None:
                visit(c.elem)
        for a in e.attrs:
            if a.pointee is not None:
                visit(a.pointee)
        out.append(e)

    for e in ents:
        visit(e)
    return out
