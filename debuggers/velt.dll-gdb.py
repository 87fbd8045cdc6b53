"""GDB's views of velt's types. GDB loads this file by itself with velt.dll if it lies
beside the DLL in a folder that GDB trusts (add-auto-load-safe-path). The views read the
program's memory and never call into it, so they also work while other threads hold locks.
"""

import datetime

import gdb
import gdb.printing


def atomic(value):
    """What a std::atomic holds: of a pointer or of a number."""
    try:
        return value["_M_b"]["_M_p"]
    except gdb.error:
        return value["_M_i"]


def short_name(type_):
    """The name of a type as the sources of velt write it."""
    name = str(type_.strip_typedefs().unqualified())
    if name.startswith("std::__cxx11::basic_string<wchar_t"):
        return "std::wstring"
    if name.startswith("std::__cxx11::basic_string<char"):
        return "std::string"
    return "__int64" if name == "long long" else name


def text_of(first, length):
    """Characters as an array, which GDB prints as a text. An empty one is its terminator."""
    character = first.type.strip_typedefs().target().strip_typedefs().unqualified()
    return first.cast(character.array(max(int(length), 1) - 1).pointer()).dereference()


def printable(value):
    """The text of a standard string, for which GDB may have no view; else the value."""
    name = short_name(value.type)
    if name in ("std::string", "std::wstring"):
        return text_of(value["_M_dataplus"]["_M_p"], value["_M_string_length"])
    return value


class SmartPtrPrinter:
    """SmartPtr<SmartPtrObj> to Paper (2 references) = {get() = 0x1234}"""

    def __init__(self, value):
        self.target = value.type.strip_typedefs().template_argument(0)
        self.object = atomic(value["ptr"])

    def to_string(self):
        name = "SmartPtr<%s>" % self.target
        if not self.object:
            return name + " (null)"
        count = int(atomic(self.object["refs"]["count"]))
        return "%s to %s (%d reference%s)" % (
            name, self.object.dynamic_type.target().unqualified(), count, "" if count == 1 else "s")

    def children(self):
        if self.object:
            yield "get()", self.object.cast(self.object.dynamic_type)


class ValuePrinter:
    """int 42, std::string "text", view of int 42, 3 x int = {1, 2, 3}, or empty"""

    def __init__(self, value):
        holder = atomic(value["data"]["ptr"])
        self.kind = "empty"
        if not holder:
            return
        self.holder = holder.cast(holder.dynamic_type).dereference()
        name = str(self.holder.type.strip_typedefs())
        self.kind = name.split("<")[0]
        if self.kind in ("_value_t_data_t", "_value_t_pdata_t", "_value_t_pcdata_t", "_value_t_cont_t"):
            self.element = self.holder.type.strip_typedefs().template_argument(0)

    def sequence(self):
        """The address of the first element of a sequence, and how many there are."""
        items = self.holder["items"]
        if self.element.code == gdb.TYPE_CODE_BOOL:
            return items["_M_dataplus"]["_M_p"], int(items["_M_string_length"])
        vector = items["_M_impl"]
        return vector["_M_start"], int(vector["_M_finish"] - vector["_M_start"])

    def to_string(self):
        if self.kind == "empty":
            return "empty"
        if self.kind == "_value_t_cont_t":
            return "%d x %s" % (self.sequence()[1], short_name(self.element))
        if self.kind == "_value_t_data_t":
            return self.scalar("", self.holder["value"])
        if self.kind in ("_value_t_pdata_t", "_value_t_pcdata_t"):
            return self.scalar("view of ", self.holder["ptr"].dereference())
        return "holder " + self.kind

    def scalar(self, prefix, element):
        name = short_name(self.element)
        shown = printable(element).format_string()
        # Some views begin with the name.
        return prefix + (shown if shown.startswith(name) else name + " " + shown)

    def children(self):
        if self.kind == "_value_t_cont_t":
            first, count = self.sequence()
            for index in range(count):
                yield "[%d]" % index, printable((first + index).dereference())

    def display_hint(self):
        return "array" if self.kind == "_value_t_cont_t" else None


class EGenericPrinter:
    """EGeneric = {Text = std::string "No room left", Rooms = int 12}"""

    def __init__(self, value):
        self.list = value["list"]["_M_impl"]

    def to_string(self):
        return "EGeneric" if self.list["_M_start"] != self.list["_M_finish"] else "EGeneric without values"

    def children(self):
        item = self.list["_M_start"]
        while item != self.list["_M_finish"]:
            name = item["first"]["_M_dataplus"]["_M_p"]
            yield name.string(errors="replace"), item["second"]
            item += 1


class TimePrinter:
    """2004-02-29 12:30:45 UTC"""

    def __init__(self, value):
        self.seconds = int(value["seconds"])

    def to_string(self):
        if self.seconds == -1:
            return "_time_t invalid"
        try:
            moment = datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=self.seconds)
        except OverflowError:
            return "_time_t %d s" % self.seconds
        return "_time_t %s UTC" % moment.isoformat(" ")


class MultiLockPrinter:
    """The text of GetStatusString(): locked_read, 48:R,52:R, 1 r->w waiters"""

    states = ("not_locked", "locked_read", "locked_write")
    write_bit = 0x80000000

    def __init__(self, value):
        self.lock = value

    def to_string(self):
        state = int(self.lock["state"])
        parts = [self.states[state] if 0 <= state < len(self.states) else "state %d" % state]
        records = [int(self.lock["owners"][i]["bits"]) for i in range(int(self.lock["owners_count"]))]
        if records:
            parts.append(",".join(
                "%d:%s" % (bits & ~self.write_bit, "W" if bits & self.write_bit else "R")
                for bits in records))
        waiters = int(atomic(self.lock["rw_waiters"]))
        if waiters > 0:
            parts.append("%d r->w waiters" % waiters)
        return ", ".join(parts)


class BstrPrinter:
    """_bstr_t L"text" """

    def __init__(self, value):
        self.data = value["m_Data"]

    def to_string(self):
        first = self.data["m_wstr"] if self.data else self.data
        if not first:
            return "_bstr_t (null)"
        # The length in bytes lies in front of the text.
        size = int(first.cast(gdb.lookup_type("unsigned int").pointer())[-1])
        return "_bstr_t " + text_of(first, size // 2).format_string()


def views():
    result = gdb.printing.RegexpCollectionPrettyPrinter("velt")
    for name, type_, printer in (
            ("_value_t", "^_value_t$", ValuePrinter),
            ("SmartPtr", "^SmartPtr<.*>$", SmartPtrPrinter),
            ("EGeneric", "^EGeneric$", EGenericPrinter),
            ("_time_t", "^_time_t$", TimePrinter),
            ("TMultiLock", "^TMultiLock$", MultiLockPrinter),
            ("_bstr_t", "^_bstr_t$", BstrPrinter)):
        result.add_printer(name, type_, printer)
    return result


gdb.printing.register_pretty_printer(gdb.current_objfile(), views(), replace=True)
