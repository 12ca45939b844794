"""The check word of both protocols' frames: 16 bits, reflected, polynomial 0x8408, start 0x554D, no final XOR."""

START = 0x554D
POLYNOMIAL = 0x8408


def _entry(value):
    for _ in range(8):
        value = (value >> 1) ^ (POLYNOMIAL if value & 1 else 0)
    return value


_TABLE = tuple(_entry(i) for i in range(256))


def crc16(data, value=START):
    """Check word over `data`, continuing from `value`."""
    for byte in data:
        value = _TABLE[(value ^ byte) & 0xFF] ^ (value >> 8)
    return value
