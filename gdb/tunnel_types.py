# gdb pretty-printers for strings, pointers, maps, identifiers and entities. They read memory
# only and call nothing, so they work on core files as well.
#
# Loaded by gdb when a program loads an installed libKop.so.0; in the tree:
#
#   (gdb) source gdb/tunnel_types.py
import ipaddress

import gdb
import gdb.printing

# Of Kop/HashMap2018Words.h: bit 0 of a slot's word says that the slot holds no entry.
FREE = 1


def bytes_at(value, size):
    if size == 0:
        return b''
    address = int(value.address if value.address is not None else value)
    return bytes(gdb.selected_inferior().read_memory(address, size))


def number(data):
    return int.from_bytes(data, 'little')


def string_bytes(value):
    """The bytes of a Kop::String: 15 minus the size in the last byte, or 0xff for a block."""
    raw = bytes_at(value, 16)
    if raw[15] != 0xFF:
        return raw[: 15 - raw[15]]
    block, size = number(raw[0:8]), number(raw[8:12])
    return bytes(gdb.selected_inferior().read_memory(block + 8, size))


def quoted(data):
    return '"' + ''.join(chr(b) if 0x20 <= b < 0x7F and b not in b'"\\'
                         else '\\x%02x' % b for b in data) + '"'


def address_text(data):
    family = number(data[0:4])
    if family == 1:
        return str(ipaddress.IPv4Address(data[4:8]))
    if family == 2:
        return str(ipaddress.IPv6Address(data[4:20]))
    return 'no address' if family == 0 else 'family %d' % family


def interface_text(word):
    kind, part1, part0 = word >> 56, word >> 24 & 0xFFFFFFFF, word & 0xFFFFFF
    if kind == 0:
        return (word & (1 << 56) - 1).to_bytes(7, 'big').rstrip(b'\0').decode('latin-1')
    if kind == 1:
        text = 'Ethernet%d' % (part1 >> 20)
        for n in (part1 >> 8 & 0xFFF, part1 & 0xFF):
            if n == 0:
                break
            text += '/%d' % n
        return text + ('.%d' % part0 if part0 else '')
    names = {2: 'Loopback%d', 3: 'Vlan%d', 4: 'Vxlan%d', 5: 'Tunnel%d'}
    if kind in names:
        return names[kind] % part1
    names = {19: 'SrTePolicyTunnel', 58: 'DynamicTunnel'}
    return '%s%d.%d' % (names.get(kind, 'Generic%d.' % kind), part1, part0)


class String:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return quoted(string_bytes(self.value))


class Interface:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return interface_text(number(bytes_at(self.value, 8))) or 'no interface'


class Address:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return address_text(bytes_at(self.value, 20))


class Prefix:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        data = bytes_at(self.value, 24)
        if number(data[0:4]) == 0:
            return 'no prefix'
        return '%s/%d' % (address_text(data), number(data[20:24]))


class MacAddress:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return ':'.join('%02x' % b for b in bytes_at(self.value, 6))


class LabelOperation:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        labels = [int(self.value['labels_'][i]) for i in range(int(self.value['count_']))]
        operation = str(self.value['operation_']).rsplit('::', 1)[-1]
        return '%s[%s]' % (operation, ', '.join(map(str, labels)))


class TunnelId:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        word = number(bytes_at(self.value, 8))
        if word == 0:
            return 'no tunnel'
        kind = word >> 44
        name = 'type %d' % kind
        try:
            kinds = gdb.lookup_type('Tunnel::TunnelTable::TunnelType')
            for field in kinds.fields():
                if field.enumval == kind:
                    name = field.name.rsplit('::', 1)[-1]
        except gdb.error:
            pass  # without its debug information the number must do
        family = ' IPv6' if word >> 43 & 1 else ''
        return '%s %d%s (0x%x)' % (name, word & (1 << 43) - 1, family, word)


class EncapId:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        word = number(bytes_at(self.value, 4))
        return 'kind %d, index %d' % (word >> 28, word & 0x0FFFFFFF)


class Map:
    """A HashMap2018: key and value of each entry, in the map's own order."""

    def __init__(self, value):
        self.value = value
        self.node = value.type.strip_typedefs().template_argument(0)

    def to_string(self):
        return '%d entries' % int(self.value['count_'])

    def display_hint(self):
        return 'array' if self.isSet() else 'map'

    def isSet(self):
        return not any(f.name == 'value' for f in self.fields())

    def fields(self):
        kind = self.node
        while not any(f.name in ('key_', 'value') for f in kind.fields()):
            kind = [f for f in kind.fields() if f.is_base_class][0].type
        return kind.fields()

    def nodes(self):
        if int(self.value['count_']) == 0:
            return
        words, entries = int(self.value['words_']), int(self.value['entries_'])
        table = self.value['table_'].dereference()
        size, pooled = int(table['entrySize']), bool(table['pooled'])
        left, slot = int(self.value['count_']), 0
        memory = gdb.selected_inferior().read_memory
        while left > 0:
            if not bytes(memory(words + 4 * slot, 4))[0] & FREE:
                at = entries + size * slot
                if pooled:
                    at = number(bytes(memory(at, 8)))
                yield gdb.Value(at).cast(self.node.pointer()).dereference()
                left -= 1
            slot += 1

    def children(self):
        names = [f.name for f in self.fields()]
        for i, node in enumerate(self.nodes()):
            if 'key_' not in names:  # the key is part of the value
                yield 'key %d' % i, i
                yield 'value %d' % i, node['value']
            elif self.isSet():
                yield '[%d]' % i, node['key_']
            else:
                yield 'key %d' % i, node['key_']
                yield 'value %d' % i, node['value']


class Set:
    def __init__(self, value):
        self.map = Map(value['map_'])

    def to_string(self):
        return self.map.to_string()

    def display_hint(self):
        return 'array'

    def children(self):
        return self.map.children()


class OrderedMap:
    def __init__(self, value):
        self.value = value
        self.node = gdb.lookup_type(value.type.strip_typedefs().name + '::Node')

    def to_string(self):
        return '%d entries' % int(self.value['count_'])

    def display_hint(self):
        return 'map'

    def children(self):
        links, pending, at = [], [], self.value['root_']
        while pending or int(at) != 0:
            while int(at) != 0:
                pending.append(at)
                at = at.dereference()['child_'][0]
            at = pending.pop()
            links.append(at)
            at = at.dereference()['child_'][1]
        for i, link in enumerate(links):
            node = link.dereference().cast(self.node)
            yield 'key %d' % i, node['key_']
            yield 'value %d' % i, node['value_']


def derives(kind, name):
    if kind.strip_typedefs().name == name:
        return True
    return any(derives(f.type, name) for f in kind.fields() if f.is_base_class)


def entity_name(value):
    base = value
    while base.type.strip_typedefs().name != 'Kop::Entity':
        base = base.cast([f for f in base.type.fields() if f.is_base_class][0].type)
    return string_bytes(base['name_'])


class Entity:
    """Its type and name, then the attributes of each level."""

    def __init__(self, value):
        self.value = value.cast(value.dynamic_type)

    def to_string(self):
        return '%s %s' % (self.value.type.name, quoted(entity_name(self.value)))

    def children(self):
        levels = []
        at = self.value
        while at.type.strip_typedefs().name != 'Kop::Entity':
            levels.append(at)
            at = at.cast([f for f in at.type.fields() if f.is_base_class][0].type)
        for level in reversed(levels):
            for field in level.type.fields():
                if not field.is_base_class and hasattr(field, 'bitpos'):
                    yield field.name.rstrip('_'), level[field]


class Pointer:
    """A Kop::Ptr: what it points to in one line; *ptr.object_ has the rest."""

    def __init__(self, value):
        self.object = value['object_']

    def to_string(self):
        if int(self.object) == 0:
            return 'null'
        to = self.object.dereference()
        to = to.cast(to.dynamic_type)
        if derives(to.type, 'Kop::Entity'):
            return '0x%x %s %s' % (int(self.object), to.type.name, quoted(entity_name(to)))
        return '0x%x %s' % (int(self.object), to.type.name)


class EntityLookup:
    """Entities are found by their base: every module may bring new ones."""

    name = 'entity'
    enabled = True

    def __call__(self, value):
        kind = value.type.strip_typedefs()
        if kind.code != gdb.TYPE_CODE_STRUCT or not kind.name:
            return None
        return Entity(value) if derives(kind, 'Kop::Entity') else None


def register(objfile=None):
    printers = gdb.printing.RegexpCollectionPrettyPrinter('tunnel-types')
    for name, pattern, printer in (
            ('String', '^Kop::String$', String),
            ('Ptr', '^Kop::Ptr<.*>$', Pointer),
            ('HashMap2018', '^Kop::HashMap2018<.*>$', Map),
            ('HSet', '^Kop::HSet<.*>$', Set),
            ('RbTreeMap', '^Kop::RbTreeMap<.*>$', OrderedMap),
            ('IntfId', '^Vantor::IntfId$', Interface),
            ('IpGenAddr', '^Vantor::IpGenAddr$', Address),
            ('IpGenPrefix', '^Vantor::IpGenPrefix$', Prefix),
            ('EthAddr', '^Vantor::EthAddr$', MacAddress),
            ('MplsLabelOperation', '^Vantor::MplsLabelOperation$', LabelOperation),
            ('TunnelId', '^Tunnel::TunnelTable::TunnelId$', TunnelId),
            ('EncapId', '^Tunnel::TunnelTable::EncapId$', EncapId)):
        printers.add_printer(name, pattern, printer)
    gdb.printing.register_pretty_printer(objfile, printers, replace=True)
    where = gdb if objfile is None else objfile
    where.pretty_printers = [p for p in where.pretty_printers
                             if getattr(p, 'name', '') != EntityLookup.name]
    where.pretty_printers.append(EntityLookup())


register()
