"""Packets: made, written, read; and what goes wrong."""

import pickle
import threading

import pytest

import quorvex

MILLION = 1_000_000


@pytest.fixture
def kettle(tmp_path):
    path = tmp_path / "kettle.qvx"
    with quorvex.Writer(path) as trace:
        trace.put("Timestamp", tick=0, Frequency=MILLION)
        trace.put("FunctionDefine", tick=0, thread=7, FuncId=1, text="boil")
        trace.put("FunctionEnter", tick=5, core=2, thread=7, FuncId=1)
        trace.put("CounterValueDimN", tick=6, thread=7, CntrId=1, Value=20, Idx=[1, 2, 3])
        trace.put("FunctionLeave", tick=1_500_000, core=2, thread=7, FuncId=1)
        trace.put("Message", tick=2 * MILLION, Priority=-2, text="hä?")
        trace.put("EndOfTrace")
    return path


def test_tells_what_a_packet_has(kettle):
    stamp, define, enter, value, leave, message = quorvex.open(kettle)
    assert (stamp.kind, stamp.tick, stamp.Frequency, stamp.id) == ("Timestamp", 0, MILLION, None)
    assert (define.name, define.text, define.FuncId, define.address) == ("boil", "boil", 1, None)
    assert (enter.kind, enter.tick, enter.ns, enter.core, enter.thread) == ("FunctionEnter", 5, 5000, 2, 7)
    assert (enter.id, enter.name, enter.text, enter.file) == (1, "boil", "", 0)
    assert value.Idx == (1, 2, 3) and value.name == ""
    assert leave.seconds == 1.5 and leave.offset > enter.offset
    assert (message.Priority, message.text, message.thread) == (-2, "hä?", None)
    assert enter.fields == {"Tick": 5, "HWCtx": 2, "SWCtx": 7, "IP": None, "FuncId": 1}
    assert repr(enter) == "FunctionEnter(Tick=5, HWCtx=2, SWCtx=7, IP=None, FuncId=1, name='boil')"
    with pytest.raises(AttributeError, match="FunctionEnter has no field Value"):
        _ = enter.Value


def test_each_kind_comes_back_as_it_was_written(tmp_path):
    values = {"Data": b"abc", "SignalValue": b"\1\2", "SignalMask": b"\3\4", "Idx": [4, 5]}
    # These frame a trace, or have fields that readers look into.
    for kind, names in quorvex.kinds().items():
        if kind.startswith("Rel") or kind.endswith("Sync") or "Trace" in kind or kind in ("Fill", "CharString"):
            continue
        fields = {name: values.get(name, 10 + place) for place, name in enumerate(names)}
        if "ValueVar" in kind:
            fields.update(Value=b"\5\6\7", Idx1=b"\7\7\7")
        if kind == "EventDefine":
            fields["EvtType"] = 1
        packet = quorvex.Packet(kind, **fields)
        for paged in (True, False):
            path = tmp_path / f"{kind}-{paged}.qvx"
            with quorvex.Writer(path, paged=paged) as trace:
                trace.put("Timestamp", tick=0, Frequency=1)
                trace.put(packet)
            (back,) = (each for each in quorvex.open(path) if each.kind == kind and each.tick != 0)
            expected = {name: tuple(value) if name == "Idx" else value for name, value in fields.items()}
            if "ValueVar" in kind:
                expected.update(Value=0x070605, Idx1=0x070707)
            assert back.fields == packet.fields == expected


@pytest.mark.parametrize(
    ("kind", "fields", "text"),
    [
        ("Foo", {}, "there is no kind of packet called Foo"),
        ("LineExec", {}, "there is no kind of packet called LineExec"),
        ("FunctionEnter", {}, "FunctionEnter needs FuncId"),
        ("FunctionEnter", {"FuncId": 1 << 32}, "FunctionEnter cannot hold 4294967296 in the 4 bytes of FuncId"),
        ("FunctionEnter", {"FuncId": 1, "Value": 1}, "FunctionEnter has no field Value"),
        ("FunctionEnter", {"FuncId": 1, "text": "x"}, "FunctionEnter has no text"),
        ("ReadData", {"DataAddr": 1, "Data": b"x" * 65}, "ReadData cannot hold 65 bytes as Data"),
        ("ReadData", {"DataAddr": 1, "Data": 5}, "ReadData takes bytes as Data"),
        ("Message", {"tick": 1 << 64}, "too"),
    ],
)
def test_refuses_what_no_packet_can_be(kind, fields, text):
    with pytest.raises((ValueError, OverflowError), match=text):
        quorvex.Packet(kind, **fields)


def test_reals_are_counter_values(tmp_path):
    assert quorvex.Packet("CounterValue", CntrId=1, Value=1.0).Value == 0x3FF0000000000000


def test_errors_tell_file_and_place(tmp_path, kettle):
    with pytest.raises(quorvex.TraceError) as missing:
        quorvex.open(tmp_path / "none.qvx")
    assert str(missing.value) == f"{tmp_path}/none.qvx: No such file or directory"
    (tmp_path / "text.qvx").write_text("no trace at all, but a text of a few words\n")
    with pytest.raises(quorvex.TraceError, match="text.qvx"):
        quorvex.open([kettle, tmp_path / "text.qvx"])
    with pytest.raises(FileNotFoundError, match="there are no traces"):
        quorvex.open([])
    # Damage: stepped over, or an error behind all that stands before it.
    bytes_ = bytearray(kettle.read_bytes())
    place = [packet.offset for packet in quorvex.open(kettle)][4]
    bytes_[place] = 0xEE
    damaged = tmp_path / "damaged.qvx"
    damaged.write_bytes(bytes_)
    packets = quorvex.open(damaged).read()
    assert [packet.kind for packet in packets].count("FunctionLeave") == 0
    (report,) = packets.reports()
    assert (report.damaged_places, report.first_damage, report.is_lossy) == (1, place, True)
    read = []
    with pytest.raises(quorvex.TraceError) as error:
        read.extend(packet.kind for packet in quorvex.open(damaged, strict=True))
    again = pickle.loads(pickle.dumps(error.value))
    assert (again.file, again.offset, str(again)) == (str(damaged), place, str(error.value))
    with pytest.raises(OSError) as refused:
        quorvex.Writer(tmp_path / "no" / "such.qvx")
    assert refused.value.filename == f"{tmp_path}/no/such.qvx"


def test_writers_go_on_and_close(tmp_path):
    path = tmp_path / "a.qvx"
    trace = quorvex.Writer(path, paged=False)
    trace.put(quorvex.Packet("Message", tick=1, text="one"))
    trace.close()
    trace.close()
    with pytest.raises(ValueError, match="the trace is closed"):
        trace.put("Message", tick=2)
    with pytest.raises(TypeError, match="has its fields already"):
        trace.put(quorvex.Packet("Message", tick=1), Priority=1)
    with quorvex.Writer(path, paged=False, append=True) as trace:
        trace.put("Message", tick=2, text="two")
    assert [packet.text for packet in quorvex.open(path)] == ["one", "two"]


def test_files_are_merged_by_time_and_directories_searched(tmp_path):
    for number in (1, 2):
        (tmp_path / "in").mkdir(exist_ok=True)
        with quorvex.Writer(tmp_path / "in" / f"{number}.qvx") as trace:
            trace.put("FunctionDefine", tick=0, FuncId=1, text=f"of {number}")
            for tick in range(number, 1000, 2):
                trace.put("FunctionEnter", tick=tick, FuncId=1)
    trace = quorvex.open(tmp_path)
    assert [packet.tick for packet in trace if packet.kind == "FunctionEnter"] == list(range(1, 1000))
    assert [packet.name for packet in trace][-2:] == ["of 2", "of 1"]
    assert [packet.file for packet in trace][-2:] == [1, 0]


def test_threads_can_share_a_reader(tmp_path):
    with quorvex.Writer(tmp_path / "a.qvx") as trace:
        for tick in range(20_000):
            trace.put("FunctionEnter", tick=tick, FuncId=1)
    packets = quorvex.open(tmp_path).read()
    seen = [[], [], []]
    threads = [threading.Thread(target=lambda own=own: own.extend(each.tick for each in packets)) for own in seen]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert sorted(sum(seen, [])) == list(range(20_000))
