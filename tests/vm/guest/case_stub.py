"""I2C through the kernel's own model of chips, i2c-stub: which transfers the transports ask the
kernel for, and what becomes of the errors that it answers."""

from support import Case, bus, run

CHIPS = "0x50,0x51,0x52"


def setUpModule():
    for command in (("modprobe", "i2c-dev"), ("modprobe", "i2c-stub", f"chip_addr={CHIPS}")):
        done = run(*command)
        assert done.code == 0, done


class StubCase(Case):
    def setUp(self):
        super().setUp()
        self.bus = bus("SMBus stub driver")
        self.node = f"/dev/i2c-{self.bus}"

    def get(self, chip, register, mode="w"):
        """What i2cget reads."""
        return int(self.succeed("i2cget", "-y", self.bus, chip, register, mode), 16)

    def set(self, chip, register, value, mode="w"):
        self.succeed("i2cset", "-y", self.bus, chip, register, value, mode)


class Words(StubCase):
    """Flavour 2."""

    def setUp(self):
        super().setUp()
        self.list = self.write("list.csv", "number,name,type,writeable,width\n"
                               "0,FIRST,control,true,16\n18,SOME,control,true,16\n"
                               "255,LAST,control,true,16\n256,BEYOND,control,true,16\n")
        self.url = f"i2c:{self.node}@0x50?flavour=2"

    def test_what_is_written_is_there_for_others(self):
        self.tarnreg(self.list, self.url, "write", "FIRST=0x1122", "SOME=0xa55a", "LAST=0x8001")
        self.assertEqual([0x1122, 0xA55A, 0x8001],
                         [self.get(0x50, register) for register in (0, 18, 255)])
