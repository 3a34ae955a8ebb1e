# SPDX-License-Identifier: Apache-2.0
"""Commands for gdb that show what libzov holds in a process or in its core file.

    zov tags                        tags of memory, their blocks and bytes
    zov syncs                       mutexes and events, who is inside, who waits
    zov queues [NAME]               queues, and the messages of the one named
    zov output                      where standard output, error and log go
    zov files                       open file handles
    zov memory-list [DIRECTORY]     files in memory below a directory
    zov memory-copy SOURCE TARGET   one file, or all below a directory, to disk

Installed where gdb finds it by itself when it loads the library; otherwise
"source zov-gdb.py". All of it reads and runs nothing in the process. It needs the
library's debugging information, of a build with -g or from a package of its own. What
was damaged, or was just being changed, ends a command with a message.
"""
import os
import struct
import time

import gdb

END_OF_BYTES = 1 << 47  # no file in memory reaches this offset
NO_SYNC = (1 << 64) - 1
FUTEX = 202  # the system call in which threads wait, on x86-64


class Damaged(gdb.GdbError):
    pass


def variable(name, scope="zov::(anonymous namespace)"):
    full = f"{scope}::{name}" if scope else name
    symbol = gdb.lookup_static_symbol(full) or gdb.lookup_global_symbol(full)
    if symbol is None:
        raise gdb.GdbError(f"No variable {full}: the library is not loaded, or has no "
                           "debugging information.")
    return symbol.value()


def pointer(value):
    return int(value.cast(gdb.lookup_type("unsigned long")))


def at(address, type_name):
    return gdb.Value(address).cast(gdb.lookup_type(type_name).pointer()).dereference()


def memory(address, length):
    return bytes(gdb.selected_inferior().read_memory(address, length)) if length else b""


def atom(value):
    """The value of a std::atomic."""
    if value.type.strip_typedefs().code != gdb.TYPE_CODE_STRUCT:
        return value
    for field in value.type.fields():
        if field.is_base_class:
            return atom(value[field])
    return value["_M_i"] if "_M_i" in value.type.keys() else value["_M_b"]["_M_p"]


def chain(first, following):
    """The records of a list, which does not meet itself."""
    seen = set()
    while pointer(first) != 0:
        if pointer(first) in seen:
            raise Damaged(f"The list runs in a circle at {pointer(first):#x}.")
        seen.add(pointer(first))
        yield first.dereference()
        first = following(first.dereference())


def text(value):
    return "(none)" if pointer(value) == 0 else value.string("utf-8", "backslashreplace")


def table_records(table):
    """The records of a table by id."""
    more = pointer(table["more_"])
    buckets = table["more_"] if more else table["first_"]
    count = int(table["mask_"]) + 1 if more else table["first_"].type.range()[1] + 1
    for bucket in range(count):
        yield from chain(buckets[bucket], lambda record: record["hashNext"])


# Memory.


def block_headers(tag):
    """The headers of a tag's blocks, newest first."""
    older = next(field.bitpos // 8 for field in gdb.lookup_type("zov::BlockHeader").fields()
                 if field.name == "older")
    seen = set()
    address = pointer(tag["blocks"])
    while address != 0:
        if address in seen:
            raise Damaged(f"The tag's list runs in a circle at {address:#x}.")
        seen.add(address)
        yield address
        address = struct.unpack("=Q", memory(address + older, 8))[0]


def block_bytes(header):
    """The caller's bytes as libc rounded them: it keeps the size in front of a block,
    with three bits of its own, one of them for a block with a mapping to itself."""
    size = struct.unpack("=Q", memory(header - 8, 8))[0]
    return (size & ~7) - (16 if size & 2 else 8) - gdb.lookup_type("zov::BlockHeader").sizeof


def show_tags(_):
    modes = {0: "returns", 1: "returns, may be armed", 2: "jumps"}
    of_files = {int(context["tag"]) for context in table_records(variable("liveContexts"))}
    blocks_of_files = bytes_of_files = 0
    print(f"{'tag':18} {'mutex':>18} {'blocks':>10} {'bytes':>14}  when memory is short")
    for tag in chain(variable("tag0", "(anonymous namespace)"), lambda tag: tag["next"]):
        blocks = [block_bytes(header) for header in block_headers(tag)]
        if pointer(tag.address) in of_files:
            blocks_of_files += len(blocks)
            bytes_of_files += sum(blocks)
            continue
        mutex = int(tag["mutex"])
        print(f"{pointer(tag.address):#018x} {'none' if mutex == NO_SYNC else hex(mutex):>18} "
              f"{len(blocks):10} {sum(blocks):14}  {modes.get(int(tag['mode']), 'damaged')}")
    print(f"{f'{len(of_files)} files and directories in memory':37} {blocks_of_files:10} "
          f"{bytes_of_files:14}")


# Sync objects.


def waiting_threads():
    """Where each thread that sleeps in the system waits: pairs of address and thread."""
    selected = gdb.selected_thread()
    frame = gdb.selected_frame() if selected else None
    waits = []
    for thread in gdb.selected_inferior().threads():
        thread.switch()
        newest = gdb.newest_frame()
        try:
            if int(newest.read_register("orig_rax")) & 0xFFFFFFFF == FUTEX:
                waits.append((int(newest.read_register("rdi")) & NO_SYNC, thread))
        except ValueError:
            break  # another processor, where the kernel overwrites the address
    if selected:
        selected.switch()
        frame.select()
    return waits


def thread_name(lwp):
    for thread in gdb.selected_inferior().threads():
        if thread.ptid[1] == lwp:
            return f"thread {thread.num} (LWP {lwp})"
    return f"LWP {lwp}, which is gone"


def sync_slots():
    for entry in range(variable("sem_table", "(anonymous namespace)").type.range()[1] + 1):
        slots = variable("sem_table", "(anonymous namespace)")[entry]["slots"]
        for index in range(1024 if pointer(slots) else 0):
            if int(atom(slots[index]["kind"])) != 0:
                yield slots[index]


def describe_sync(slot, waiters):
    if int(atom(slot["kind"])) == 1:
        state = slot["mutex"]["__data"]
        owner = int(state["__owner"])
        # Those entered directly do not count how often.
        count = max(int(atom(slot["recursionCount"])), 1)
        what = f"mutex, inside {thread_name(owner)}, {count} times" if owner else "mutex, free"
    else:
        what = "event, " + ("signalled" if int(atom(slot["signalled"])) else "reset")
    names = ", ".join(f"thread {thread.num}" for thread in waiters)
    return what + (f"; waits: {names}" if names else "")


def show_syncs(_):
    waits = waiting_threads()
    total = 0
    for slot in sync_slots():
        total += 1
        address = pointer(slot.address)
        waiters = [thread for where, thread in waits
                   if address <= where < address + slot.type.sizeof]
        line = describe_sync(slot, waiters)
        if line not in ("mutex, free", "event, reset"):
            print(f"{address:#018x}  {line}")
    print(f"{total} objects; mutexes that are free and events that are reset are not shown")


# Queues.


def show_queues(name):
    for cell in chain(variable("qList"), lambda cell: cell["next"]):
        queue = cell["queue"].dereference()
        flags = int(atom(queue["flags"]))
        state = [word for bit, word in ((1, "closed"), (2, "a reader waits")) if flags & bit]
        if name and text(queue["name"]) != name:
            continue
        print(f"{pointer(queue.address):#018x}  {text(queue['name'])}: "
              f"{', '.join([str(int(atom(queue['count']))) + ' messages'] + state)}")
        for node in chain(queue["head"], lambda node: node["next"]) if name else ():
            message = node["message"]
            print(f"    code {int(message['code'])}, key {int(message['key'])}, "
                  f"data {int(message['data']):#x}")


# Output and file handles.


def show_output(_):
    for name in ("stdout", "stderr", "log"):
        nodes = chain(variable(f"{name}Stack", "zov")["top"], lambda node: node["next"])
        targets = [text(node["info"]["name"]) for node in nodes]
        print(f"{name:8} {' over '.join(targets) if targets else '(silent)'}")


def show_files(_):
    tag = at(int(variable("fileTag")), "(anonymous namespace)::TagRecord")
    header_bytes = gdb.lookup_type("zov::BlockHeader").sizeof
    for header in block_headers(tag):
        file = at(header + header_bytes, "FileHandle")
        if pointer(file["mfile"]):
            where = f"in memory at {int(file['mfile']['position'])}"
        else:
            where = f"descriptor {int(file['fd'].cast(gdb.lookup_type('long')))}"
        print(f"{pointer(file.address):#018x}  {text(file['path'])}: {where}")


# Files in memory.


class MemoryFile:
    """A segmented file: its segments lie where the table of its context says."""

    def __init__(self, file_id):
        context = at(file_id, "ShmContext")
        root = pointer(context["root"])
        self.size = self.segments = self.base = self.time = 0
        if root == 0:
            return  # nothing was ever stored in it
        header = at(root, "zov::SegHeader")
        self.size, self.segments = int(header["size"]), int(header["numSegments"])
        self.base, self.time = int(header["segSize"]), int(header["modTime"])
        if self.size > END_OF_BYTES or self.base == 0:
            raise Damaged(f"The file with id {file_id:#x} is damaged.")
        self.table = context["regions"]

    def region(self, number):
        """The address of a segment, 0 for a hole."""
        near = int(self.table["nearSlots_"])
        if number < near:
            return pointer(self.table["near_"][number])
        far = self.table["far_"]
        per_block = 4096
        block = number // per_block - 1
        if number < per_block or pointer(far) == 0 or block >= int(far["count"]):
            return 0
        blocks = (far + 1).cast(gdb.lookup_type("unsigned long").pointer())
        slots = int(blocks[block])
        return struct.unpack("=Q", memory(slots + number % per_block * 8, 8))[0] if slots else 0

    def pieces(self):
        """Offset, address and length of the segments; there is nothing in a hole."""
        for number in range(self.segments):
            group = 0 if number < 4 else min((number - 1) // 3, 6)
            length = self.base << (2 * group)
            address = self.region(number)
            if address:
                yield (number - 3 * group) * length, address, length

    def copy(self, target):
        with open(target, "xb", opener=lambda path, flags: os.open(path, flags, 0o600)) as out:
            for start, address, length in self.pieces():
                length = min(length, max(self.size - start, 0))
                out.seek(start)
                for done in range(0, length, 1 << 20):
                    out.write(memory(address + done, min(1 << 20, length - done)))
            out.truncate(self.size)


class Directory:
    """The tree of a directory: each of its pages begins a segment."""

    def __init__(self, file_id):
        self.file = MemoryFile(file_id)

    def record(self, number, type_name):
        address = self.file.region(number)
        if address == 0:
            raise Damaged(f"A directory misses its page {number}.")
        return at(address, type_name)

    def name(self, entry):
        length = int(entry["nameLen"])
        name = memory(pointer(entry["name"].address), min(length, 22))
        link = entry["extra"]
        while len(name) < length:
            extra = (self.record(int(link["node"]), "zov::ExtraEntry").address +
                     int(link["index"])).dereference()
            name += memory(pointer(extra["name"].address), min(length - len(name), 24))
            link = extra["next"]
        text_of_name = name.decode("utf-8", "surrogateescape")
        if text_of_name in ("", ".", "..") or "/" in text_of_name or "\0" in text_of_name:
            raise Damaged(f"No file has the name {text_of_name!r}.")
        return text_of_name

    def entries(self, number=1, depth=0):
        """Name, id and whether it is a directory, in the order of the names."""
        if depth > 16:
            raise Damaged("The tree of a directory is deeper than any can be.")
        if self.file.segments == 0:
            return
        node = self.record(number, "zov::TreeNode")
        slots = (node.address + 1).cast(gdb.lookup_type("zov::TreeSlot").pointer())
        count = int(node["count"])
        for index in range(count + 1):
            child = int(slots[index]["child"])
            if child:
                yield from self.entries(child, depth + 1)
            if index < count:
                entry = slots[index]["entry"]
                yield self.name(entry), int(entry["fileId"]), int(entry["type"]) == 1


def find(path):
    """The id of what a path names, and whether it is a directory."""
    file_id, is_directory = int(variable("rootCtx")), True
    for part in path.split("/"):
        if part in ("", "."):
            continue
        found = [entry for entry in (Directory(file_id).entries() if is_directory else ())
                 if entry[0].lower() == part.lower()]
        if not found:
            raise gdb.GdbError(f"No file or directory in memory has the name {path}.")
        _, file_id, is_directory = found[0]
    return file_id, is_directory


def below(file_id, prefix=""):
    for name, entry_id, is_directory in Directory(file_id).entries():
        yield prefix + name, entry_id, is_directory
        if is_directory:
            yield from below(entry_id, f"{prefix}{name}/")


def show_memory(path):
    file_id, is_directory = find(path)
    if int(variable("rootCtx")) == 0:
        return
    for name, entry_id, is_sub in below(file_id) if is_directory else [(path, file_id, False)]:
        file = MemoryFile(entry_id)
        when = time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(file.time)) if file.time else "-"
        print(f"{'directory' if is_sub else file.size:>14}  {when:19}  {name}")


def copy_memory(arguments):
    words = gdb.string_to_argv(arguments)
    if len(words) != 2:
        raise gdb.GdbError("zov memory-copy SOURCE TARGET: a path in memory and one on disk "
                           "that does not exist.")
    file_id, is_directory = find(words[0])
    try:
        if not is_directory:
            MemoryFile(file_id).copy(words[1])
            return
        os.mkdir(words[1], 0o700)
        copied = 0
        for name, entry_id, is_sub in below(file_id):
            target = os.path.join(words[1], name)
            os.mkdir(target, 0o700) if is_sub else MemoryFile(entry_id).copy(target)
            copied += not is_sub
        print(f"{copied} files copied to {words[1]}")
    except OSError as error:
        raise gdb.GdbError(f"{error.filename or words[1]}: {error.strerror}")


class Command(gdb.Command):
    def __init__(self, name, run, help_text):
        self.__doc__ = help_text
        self.run = run
        super().__init__(f"zov {name}", gdb.COMMAND_DATA)

    def invoke(self, argument, _):
        try:
            self.run(argument.strip())
        except gdb.MemoryError as error:
            raise Damaged(f"What the list leads to cannot be read: {error}")


class Prefix(gdb.Command):
    __doc__

    def __init__(self):
        super().__init__("zov", gdb.COMMAND_DATA, prefix=True)


Prefix.__doc__ = __doc__
Prefix()
for command in [("tags", show_tags, "Tags of memory, oldest first: their mutex, blocks and bytes."),
                ("syncs", show_syncs, "Mutexes and events in use: who is inside, who waits."),
                ("queues", show_queues, "Queues, and with a name the messages of that one."),
                ("output", show_output, "Where standard output, error and log go, top first."),
                ("files", show_files, "Open file handles, newest first."),
                ("memory-list", show_memory, "The files in memory, or those below a directory."),
                ("memory-copy", copy_memory, "Copies a file in memory, or all below a directory, "
                                             "to a new name on disk.")]:
    Command(*command)
