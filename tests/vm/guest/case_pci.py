"""Memory-mapped PCI with devices that are none of ours: QEMU's edu, which answers by rules of its own
and to accesses of 32 bits only, and ivshmem, whose BAR is a file of the host's.

QEMU's own log of edu's accesses is the witness for their width, number and order; the file, read on
the host, for what is where.
"""

import host
from support import HEADER, TARNREG, TIMED_OUT, Case, Client, Function, run

EDU, SHARED = (0x1234, 0x11E8), (0x1AF4, 0x1110)
IDENTIFICATION = 0x010000ED


class Edu(Case):
    def setUp(self):
        super().setUp()
        self.edu = Function(*EDU)
        self.url = self.edu.url(0)
        self.list = self.write("list.csv", HEADER + "0,ID,id,false,32\n1,LIVE,scratch,true,32\n"
                               "1,LOW,scratch,true,8\n2,FACTORIAL,control,true,32\n"
                               "8,STATUS,status,true,32\n0,PAIR[0:1],data,true,32\n"
                               "262143,LAST,data,true,32\n262144,BEYOND,data,true,32\n")

    def recorded(self, action):
        """What the action returns, and edu's accesses meanwhile: (what, offset, bytes, value)."""
        host.ask("record", wanted=True)
        try:
            result = action()
        finally:
            host.ask("record", wanted=False)
        return result, [(what, at - self.edu.base(0), size, value)
                        for what, at, size, value in host.ask("accesses", region="edu-mmio")]

    def witness(self, offset, value=None):
        """A word read, or written, through /dev/mem."""
        words = () if value is None else (value,)
        out = self.succeed("/run/busybox", "devmem", hex(self.edu.base(0) + offset), "32", *words)
        return int(out, 16) if value is None else None

    def test_it_says_who_it_is(self):
        self.assertEqual(IDENTIFICATION, self.witness(0))
        self.assertEqual({"ID": IDENTIFICATION}, self.values(self.list, self.url, "ID"))

    def test_it_lives_what_is_written_comes_back_as_its_complement(self):
        for value in (0, 0x12345678, 0xFFFFFFFF):
            self.tarnreg(self.list, self.url, "write", f"LIVE={value:#x}")
            self.assertEqual(value ^ 0xFFFFFFFF, self.witness(4))
            self.assertEqual({"LIVE": value ^ 0xFFFFFFFF},
                             self.values(self.list, self.url, "LIVE"))
        self.witness(4, 0x0F0F0F0F)
        self.assertEqual({"LIVE": 0xF0F0F0F0}, self.values(self.list, self.url, "LIVE"))

    def test_reading_back_finds_that_it_is_the_complement(self):
        done = run(TARNREG, "--file", self.list, "--transport", self.url, "write", "LIVE=1",
                   "--verify")
        self.assertEqual((7, "tarnreg: error: LIVE reads back as 0xfffffffe, not 0x1\n"),
                         (done.code, done.err), done)

    def test_it_computes_while_it_is_polled(self):
        self.tarnreg(self.list, self.url, "write", "FACTORIAL=10")
        self.tarnreg(self.list, self.url, "poll", "--until", "STATUS&1=0", "--timeout", "200")
        self.assertEqual({"FACTORIAL": 3628800}, self.values(self.list, self.url, "FACTORIAL"))
        self.assertEqual(3628800, self.witness(8))
        self.tarnreg_fails(self.list, self.url, "poll", "--until", "ID=0", "--timeout", "0.1",
                           code=TIMED_OUT)

    def test_every_access_is_one_of_32_bits_and_none_is_left_out_or_made_twice(self):
        def accesses():
            self.tarnreg(self.list, self.url, "read", "ID", "LIVE", "ID")
            self.tarnreg(self.list, self.url, "write", "LIVE=0x11223344", "LOW=0x55", "FACTORIAL=3")
            self.tarnreg(self.list, self.url, "read", "LOW")

        self.tarnreg(self.list, self.url, "write", "LIVE=0")
        _, seen = self.recorded(accesses)
        self.assertEqual([("read", 0, 4, IDENTIFICATION), ("read", 4, 4, 0xFFFFFFFF),
                          ("read", 0, 4, IDENTIFICATION), ("write", 4, 4, 0x11223344),
                          ("write", 4, 4, 0x55), ("write", 8, 4, 3), ("read", 4, 4, 0xFFFFFFAA)],
                         seen)

    def test_a_block_is_words_in_their_order(self):
        with Client(self, self.list, self.url) as client:
            client.do("write LIVE 0x5a5a5a5a")
            values, seen = self.recorded(lambda: client.do("readarray PAIR[0] 2"))
            self.assertEqual(f"{IDENTIFICATION:#x} 0xa5a5a5a5", values)
            self.assertEqual([("read", 0, 4, IDENTIFICATION), ("read", 4, 4, 0xA5A5A5A5)], seen)
            _, seen = self.recorded(lambda: client.do("writearray PAIR[0] 0x1 0x2"))
            self.assertEqual([("write", 0, 4, 1), ("write", 4, 4, 2)], seen)

    def test_beyond_the_bar_nothing_is_touched(self):
        with Client(self, self.list, self.url) as client:
            for words in ("read BEYOND", "write BEYOND 1", "readarray LAST 2",
                          "writearray LAST 1 2"):
                answer, seen = self.recorded(lambda: client.do(words))
                self.assertRegex(answer, r"^failed: Register '\w+' at offset 0x\w+.* beyond the "
                                         r"1048576 bytes of PCI register space /sys/.*: No such "
                                         r"device or address")
                self.assertEqual([], seen)

    def test_a_function_or_bar_that_is_not_there_is_an_error(self):
        for url in ("pci:00:1e.7", self.url.replace("resource0", "resource4")):
            self.assertIn("No such file or directory",
                          self.tarnreg_fails(self.list, url, "read", "ID"))


class Shared(Case):
    """What is in the file is asked of the host as the words that are not EMPTY."""

    EMPTY = 0xEEEEEEEE
    LAST = 262143

    def setUp(self):
        super().setUp()
        self.url = Function(*SHARED).url(2)
        self.list = self.write("list.csv", HEADER + "0,FIRST,data,true,32\n1,SECOND,data,true,32\n"
                               "5,NARROW,data,true,12\n64,BLOCK[0:15],data,true,32\n"
                               f"{self.LAST},LAST,data,true,32\n")
        host.ask("fill", word=self.EMPTY)

    def words(self):
        return {number: value for number, value in host.ask("words", other_than=self.EMPTY)}

    def put(self, number, value):
        host.ask("put", number=number, value=value)

    def test_a_write_changes_its_four_bytes_and_no_other(self):
        self.tarnreg(self.list, self.url, "write", "FIRST=0x01020304")
        self.assertEqual({0: 0x01020304}, self.words())
        self.tarnreg(self.list, self.url, "write", "LAST=0xfffefdfc", "NARROW=0xabc")
        self.assertEqual({0: 0x01020304, self.LAST: 0xFFFEFDFC, 5: 0xABC}, self.words())

    def test_a_read_is_what_the_host_has_put_there_and_changes_nothing(self):
        there = {0: 0x01020304, 1: 0x12345678, 5: 0xFFFFFABC, self.LAST: 0xDEADBEEF}
        for number, value in there.items():
            self.put(number, value)
        self.assertEqual({"FIRST": 0x01020304, "SECOND": 0x12345678, "LAST": 0xDEADBEEF,
                          "NARROW": 0xABC},
                         self.values(self.list, self.url, "FIRST", "SECOND", "LAST", "NARROW"))
        self.assertEqual(there, self.words())

    def test_blocks_are_read_and_written_word_by_word(self):
        values = [0x01010101 * at + 7 for at in range(16)]
        with Client(self, self.list, self.url) as client:
            self.assertEqual("done", client.do("writearray BLOCK[0] "
                                               + " ".join(map(hex, values))))
            self.assertEqual({64 + at: value for at, value in enumerate(values)}, self.words())
            self.put(66, 0x44332211)
            values[2] = 0x44332211
            self.assertEqual(" ".join(map(hex, values)), client.do("readarray BLOCK[0] 16"))

    def test_an_open_handle_sees_what_changes_and_shows_what_it_changes(self):
        with Client(self, self.list, self.url) as client:
            for value in (1, 0x80000000, 0xFFFFFFFF):
                self.put(1, value)
                self.assertEqual(f"{value:#x}", client.do("read SECOND"))
                client.do(f"write LAST {value:#x}")
                self.assertEqual({1: value, self.LAST: value}, self.words())
