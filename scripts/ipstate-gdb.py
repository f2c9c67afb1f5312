"""Shows pointers, texts, names, addresses and collections of ipstate in gdb as people write them.

gdb loads it by itself with an installed library; else: (gdb) source scripts/ipstate-gdb.py

Nothing is called in the program that is looked at, so that it does for core files, too.
"""

import gdb
import gdb.printing
import ipaddress


def field(value, name):
    """A member of the value or of a base of it, or None."""
    for each in value.type.strip_typedefs().fields():
        if each.is_base_class:
            found = field(value[each], name)
            if found is not None:
                return found
        elif each.name == name:
            return value[each]
    return None


def text_at(address, size):
    return gdb.selected_inferior().read_memory(address, size).tobytes() if size else b""


def quoted(data):
    return '"' + data.decode("utf-8", "backslashreplace").replace('"', '\\"') + '"'


def global_value(name):
    found = gdb.lookup_global_symbol(name) or gdb.lookup_static_symbol(name)
    return found.value() if found else gdb.parse_and_eval("'" + name + "'")


def string_text(string):
    rep = field(string, "rep_")
    if int(rep) == 0:
        return b""
    return text_at(int(rep) + rep.dereference().type.sizeof, int(rep["size"]))


def atomic(value):
    """What a std::atomic holds."""
    inner = field(value, "_M_i")
    return int(field(value["_M_b"], "_M_p") if inner is None else inner)


def interned_text(index):
    """The text of a name, from the chunks of the interner (framework/Interner.cpp)."""
    if index == 0:
        return b""
    first, unit = 12, 16
    chunk = max(index.bit_length() - first, 0)
    begin = 0 if chunk == 0 else 1 << (first - 1 + chunk)
    node_type = gdb.lookup_type("Zek::(anonymous namespace)::Node")
    chunks = global_value("Zek::(anonymous namespace)::chunks")
    address = atomic(chunks[chunk]) + (index - begin) * unit
    node = gdb.Value(address).cast(node_type.pointer())
    return text_at(address + node_type.sizeof, int(node["size"]))


class Text:
    """What is shown by one text."""

    def __init__(self, value):
        self.value = value


class String(Text):
    def to_string(self):
        return quoted(string_text(self.value))


class BoundedString(Text):
    def to_string(self):
        return quoted(string_text(field(self.value, "text_")))


class NamespaceName(Text):
    def to_string(self):
        return quoted(string_text(field(self.value, "name_")))


class Name(Text):
    def to_string(self):
        return quoted(interned_text(int(self.value["text_"]["index"])))


class IntfId(Text):
    def to_string(self):
        return Name(self.value["name_"]).to_string()


def ip4(addr):
    return str(ipaddress.IPv4Address(int(addr["value_"])))


def ip6(addr):
    array = addr["bytes_"]
    return str(ipaddress.IPv6Address(text_at(int(array.address), 16)))


class IpAddr(Text):
    def to_string(self):
        return ip4(self.value)


class Ip6Addr(Text):
    def to_string(self):
        return ip6(self.value)


class WithMask(Text):
    def to_string(self):
        addr = self.value["addr_"]
        is4 = field(addr, "value_") is not None
        return "%s/%d" % (ip4(addr) if is4 else ip6(addr), int(self.value["len_"]))


class Prefix(Text):
    def to_string(self):
        return WithMask(self.value["prefix_"]).to_string()


class IpGenAddr(Text):
    def to_string(self):
        family = int(self.value["af_"])
        if family == 0:
            return "no address"
        addr = self.value["addr_"]
        text = ip6(addr)
        if family == 1:
            number = int(ipaddress.IPv6Address(text)) & 0xFFFFFFFF
            text = str(ipaddress.IPv4Address(number))
        length = field(self.value, "len_")
        return text if length is None else "%s/%d" % (text, int(length))


class Ptr(Text):
    """The object by its own type, and below it the object."""

    def object(self):
        return field(self.value, "object_")

    def to_string(self):
        at = self.object()
        if int(at) == 0:
            return "null"
        return "%s at 0x%x" % (at.dynamic_type.target().unqualified(), int(at))

    def children(self):
        at = self.object()
        if int(at) != 0:
            yield "->", at.cast(at.dynamic_type).dereference()


class Collection(Text):
    """Keys and members, in the order of a walk."""

    def types(self):
        plain = self.value.type.strip_typedefs()
        return plain.template_argument(0), plain.template_argument(1)

    def to_string(self):
        count = sum(1 for _ in self.members())
        return "%d member%s" % (count, "" if count == 1 else "s")

    def children(self):
        member, key = self.types()
        for number, at in enumerate(self.members()):
            one = at.cast(member.unqualified().pointer()).dereference()
            held = field(one, "value_")
            yield "[%d] key" % number, self.key(one, str(key.strip_typedefs()))
            yield "[%d] value" % number, one.address if held is None else held

    def key(self, member, wanted):
        for name in ("key_", "value_"):
            found = field(member, name)
            if found is not None:
                return found
        return self.of_type(member, wanted) or member.address

    def of_type(self, value, wanted):
        for each in value.type.strip_typedefs().fields():
            if each.is_base_class:
                found = self.of_type(value[each], wanted)
                if found is not None:
                    return found
            elif hasattr(each, "bitpos") and str(
                each.type.strip_typedefs().unqualified()
            ) == wanted:
                return value[each]
        return None

    def display_hint(self):
        return "map"


class HashMap(Collection):
    def members(self):
        rep = self.value["table_"]["rep_"]
        if int(rep) == 0:
            return
        yield from self.slots(rep, 0)
        # While a table grows, greater hashes are still in the old array.
        old = rep["old"]
        if int(old) != 0:
            yield from self.slots(old, int(old["begin"]))

    def slots(self, rep, begin):
        length = int(rep["length"])
        tags = 0 if int(rep["shift"]) == 32 else length + 16 + 8
        slot = gdb.lookup_type("Zek::HashTable::Slot")
        at = int(rep) + rep.dereference().type.sizeof + tags
        slots = gdb.Value(at).cast(slot.pointer())
        for number in range(begin, length):
            if int(slots[number]["mark"]) != 0:
                yield slots[number]["member"]


class RbTreeMap(Collection):
    def members(self):
        yield from self.below(self.value["tree_"]["root_"])

    def below(self, node):
        if int(node) == 0:
            return
        yield from self.below(node["child_"][0])
        yield node
        yield from self.below(node["child_"][1])


def bounded_string(value):
    """The printer of a type of the schemas that is a text of bounded length."""
    plain = value.type.strip_typedefs()
    if plain.code == gdb.TYPE_CODE_STRUCT:
        for each in plain.fields():
            if each.is_base_class and each.name.startswith("Zek::BoundedString<"):
                return BoundedString(value)
    return None


def collection():
    printers = gdb.printing.RegexpCollectionPrettyPrinter("ipstate")
    for name, pattern, printer in (
        ("Ptr", r"^Zek::Ptr<.*>$", Ptr),
        ("String", r"^Zek::String$", String),
        ("Name", r"^Zek::Name$", Name),
        ("HashMap", r"^Zek::HashMap<.*>$", HashMap),
        ("RbTreeMap", r"^Zek::RbTreeMap<.*>$", RbTreeMap),
        ("IntfId", r"^Velon::IntfId$", IntfId),
        ("NamespaceName", r"^Velon::NamespaceName$", NamespaceName),
        ("IpAddr", r"^Velon::IpAddr$", IpAddr),
        ("Ip6Addr", r"^Velon::Ip6Addr$", Ip6Addr),
        ("WithMask", r"^Velon::Ip6?AddrWithMask$", WithMask),
        ("IpGenAddr", r"^Velon::IpGenAddr(WithMask)?$", IpGenAddr),
        ("Prefix", r"^Velon::PrefixOf<.*>$", Prefix),
    ):
        printers.add_printer(name, pattern, printer)
    return printers


gdb.printing.register_pretty_printer(gdb.current_objfile(), collection(), replace=True)
gdb.pretty_printers.append(bounded_string)
