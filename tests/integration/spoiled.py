"""A power module whose answer to RS can be spoiled once, telling something then that no other answer tells."""

# What the spoiled answer says, and all others.
SPOILED, USUAL = 111, 231
# Seconds of rest after a failed query.
REST = 0.250
FUNCTIONS = ("MLINK_Rcv", "MLINK_Decode", "MLINK_ManageQuery", "MLINK_ManageData", "ComDev_Rcv")
FAILED = ("Err", "FALLITO Comando RS inviato alla scheda 0x31")
NO_START = ("Err", "Errore ricezione: manca il carattere di inizio pacchetto!")


class SpoiledLine:
    """A card alone with its module, whose answers to RS can be spoiled once."""

    def __init__(self, card, unit):
        self.card, self.unit = card, unit
        self._left = 0
        unit.replies["RS"] = self._answer

    def _answer(self, _query):
        told = self.unit.data
        told.Vin = [SPOILED if self._left else USUAL] * 3
        self._left = max(0, self._left - 1)
        return told.encode("RS")

    def spoil(self, kind, **options):
        """Spoils one answer, waits for the next good one. Returns what the card has logged of it, as (level, message)
        pairs; whether it has taken the answer; seconds from the query to the next one."""
        mark, log = self.unit.mark(), self.card.log.mark()
        self._left = 1
        self.unit.fault(kind, "RS", **options)
        bad = self.unit.wait("RS", since=mark)
        after = self.unit.wait("DE", since=bad.number, timeout=8)
        taken = self.card.tree().module("A").module.data.Vin[0] == SPOILED
        begin = self.unit.wait("RS", since=after.number)
        self.unit.wait("DE", since=begin.number)
        assert self.card.tree().module("A").module.data.Vin == [USUAL] * 3, "the next one is good"
        assert not self.card.log.find("Nessun modulo e' in buono stato", log), "one bad answer is no loss"
        lines = [(line.level, line.message) for line in self.card.log.lines(log) if line.function in FUNCTIONS]
        return lines, taken, after.start - bad.time
