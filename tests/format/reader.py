#!/usr/bin/env python3
"""Reads a trace by docs/format.md alone, and shares no code with the library.

    reader.py KINDS_JSON TRACE

Prints a line for each packet but Fill: its offset, its time (- when it tells none, + when it belongs to the packet before),
then the cells of its row in the plain table. For what cannot be read it prints the offset, "lost" and the number of bytes, or
"cut" and what is left of the last packet.
"""
import json
import sys

ONES = 2**64 - 1
SYNCS = {0x7F: 'core', 0x72: 'bus', 0x73: 'system'}
CHAR_STRING, FILL = 0x7E, 0x7D
SIZES_BEFORE_TEXT = {0x40: 7, 0x41: 7, 0x50: 29, 0x51: 29}


class Kinds:
    def __init__(self, text):
        self.by_code = {kind['code']: kind for kind in map(json.loads, text.splitlines())}

    def split(self, code, payload):
        """The fields of a payload, each with its bytes; None when it cannot be read."""
        kind = self.by_code.get(code)
        if not kind:
            return None
        fields, size = kind['fields'], len(payload)
        if kind['longer']:
            size = min(size, kind['lengths'][-1][1])
        if not any(size in range(first, last + 1, step) for first, last, step in kind['lengths']):
            return None
        if kind['name'] == 'TraceEnabled':  # may end early
            payload = payload[:size] + (bytes(4) + b'\xff' * 8 + bytes(4))[size:]
            size = len(payload)
        if kind['name'].endswith(('FunctionEnter', 'FunctionLeave')) and size in (10, 32):
            fields = fields[:-1] + [dict(fields[-1], name='SrcFuncId'), fields[-1]]
        fixed = sum(field['size'] for field in fields if type(field['size']) is int and 'count' not in field)
        rest = size - fixed
        shares = sum(type(field['size']) is list for field in fields)
        options = sum(field['size'] for field in fields if field.get('count') == [0, 1])
        result, at = [], 0
        for field in fields:
            width, times = field['size'], 1
            if type(width) is list:
                width = rest // shares
            elif field.get('count') == [0, 1]:
                times = int(rest in (width, options))
            elif 'count' in field:
                times = rest // width
            for _ in range(times):
                result.append((field, payload[at:at + width]))
                at += width
        return result


def cells_of(field, raw):
    """A field as it is shown in the plain table."""
    kind, value = field['type'], int.from_bytes(raw, 'little')
    number, digits = str(value), '0x%0*x' % (2 * len(raw), value)
    if kind == 'text':
        try:
            text = raw.decode('utf-8')
        except UnicodeDecodeError:
            return [digits]
        plain = not text.startswith('0x') and all(c >= ' ' and not '\x7f' <= c <= '\x9f' for c in text)
        return [text if plain else digits]
    if not raw:
        return []
    if kind in ('tick', 'address', 'unit') and raw == b'\xff' * len(raw):
        return ['Invalid']
    if kind == 'length' and raw == b'\xff' * 8:
        return ['UnknownLength']
    if kind == 'data' and len(raw) not in (1, 2, 4, 8):
        return ['0x' + raw.hex()]
    if kind == 'access' and value < 4:
        return [('BusAccUnk', 'BusAccRead', 'BusAccWrite', 'BusAccReadWrite')[value]]
    if kind == 'configuration' and value < 8:
        return [('UnknownExpanded', 'NotExpanded', 'Expanded', 'MixExpanded')[value % 4],
                ('NoExceptionFrames', 'ExceptionFrames')[value // 4]]
    if kind == 'padding':
        return ['']
    return [number if kind in ('tick', 'unit', 'number', 'length') else digits]


def size_of(split):
    return sum(len(raw) for _, raw in split)


class Packet:
    """One packet: where it stands, its time, and its row as it is and with an absolute context."""

    def __init__(self, kinds, at, code, length, split, references):
        kind = kinds.by_code[code]
        self.at, self.code, self.name, self.text = at, code, kind['name'], b''
        self.takes_text, self.belongs = kind['text'], False
        self.size = size_of(split)
        self.row = self.cells(split, min(self.size, length))
        sort = kind['context'] or ''
        if sort.startswith('relative '):
            sort = sort.split()[1]
            changes = {field['name'][3:]: raw for field, raw in split if field['name'] in ('RelTick', 'RelIP')}
            whole = [(field, bytes([raw[0] ^ changes.get(field['name'], b'\0')[0]]) + raw[1:])
                     for field, raw in references[sort]]
            split = whole + split[len(changes):]
            self.name = self.name[3:]
        elif code in SYNCS:
            references[SYNCS[code]] = split
        self.absolute = self.cells(split, size_of(split))
        frame_lengths = [int.from_bytes(raw, 'little') for field, raw in split if field['name'] == 'FrameLen' and raw]
        self.frame_length = frame_lengths[0] if frame_lengths and length >= 12 else ONES
        ticks = [int.from_bytes(raw, 'little') for field, raw in split if field['name'] in ('Tick', 'Timestamp')]
        self.tick = ticks[0] if ticks and ticks[0] >> 8 != ONES >> 8 else None

    def cells(self, split, length):
        return [self.name, str(length)] + [cell for part in split for cell in cells_of(*part)]


def read(kinds, data):
    """The packets of a trace; for what cannot be read, its offset, why, and its size."""
    references = {}
    for code, sort in SYNCS.items():
        fields = kinds.by_code[code]['fields']
        references[sort] = [(field, (b'\0' if field['type'] == 'unit' else b'\xff') * field['size']) for field in fields]
    at, named, frame, told = 0, None, None, 0
    while at + 2 <= len(data):
        code, length = data[at], data[at + 1]
        end = at + 2 + length
        if end > len(data):
            break
        fields = SIZES_BEFORE_TEXT.get(code, length)
        if length > fields and data[at + 2 + fields:at + 4 + fields] == bytes([CHAR_STRING, max(length - fields - 2, 0)]):
            end = at + 2 + fields  # the text is counted in the length, but stands where it always does
        payload = data[at + 2:end]
        split = kinds.split(code, payload)
        packet = split is not None and Packet(kinds, at, code, len(payload), split, references)
        if packet and code == CHAR_STRING and named and (length > 0 or named.text):
            named.text += payload
            packet.belongs = True
            named = named if length == 255 else None
        else:
            named = packet if packet and packet.takes_text else None
        if packet and packet.name in ('TraceEnabled', 'TraceDisabled', 'EndOfTrace'):
            if packet.name == 'TraceDisabled' and told > end:
                yield end, 'lacks', 0
            frame = packet.name
            told = 0 if packet.frame_length == ONES else at + packet.frame_length
        yield packet or (at, 'lost', end - at)
        if packet and at + 2 + packet.size < end:
            yield at + 2 + packet.size, 'lost', end - at - 2 - packet.size
        at = end
    if at < len(data) or named and named.text or frame == 'TraceEnabled':
        yield at, 'cut', len(data) - at


def listing(packets):
    for packet in packets:
        if isinstance(packet, tuple):
            yield '%04x %s %d' % packet
        elif packet.code != FILL:
            time = '+' if packet.belongs else '-' if packet.tick is None else str(packet.tick)
            yield ' '.join(['%04x' % packet.at, time] + packet.row).rstrip(' ')


if __name__ == '__main__':
    with open(sys.argv[1], encoding='ascii') as kinds, open(sys.argv[2], 'rb') as trace:
        sys.stdout.reconfigure(encoding='utf-8')
        for line in listing(read(Kinds(kinds.read()), trace.read())):
            print(line)
