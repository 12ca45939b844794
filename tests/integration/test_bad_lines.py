"""Bad days of the two lines: whatever happens on them, the gateway stays, and is right again soon after."""

import random
import time

import pytest

from vitals import LONG_MINUTES, Vitals, lost, right_again

NOISE_SECONDS = LONG_MINUTES * 60 or 3


@pytest.fixture
def plant(one_card_plant):
    return one_card_plant()


def noise(percent, seed):
    """A filter that puts another byte in place of so many of a hundred."""
    chance = random.Random(seed)

    def change(_sender, data):
        return bytes(chance.randrange(256) if chance.random() < percent / 100 else byte for byte in data)
    return change


@pytest.mark.parametrize("percent, bound", [(1, 5000), (5, 5000), (20, 5000)])
def test_noise_on_both_lines(plant, bus, percent, bound):
    card, others, unit = plant
    vitals = Vitals(card)
    ends = [bus.add_filter(noise(percent, 1)), card.module_line.add_filter(noise(percent, 2))]
    time.sleep(NOISE_SECONDS)
    assert card.running
    for end in ends:
        end()
    right_again(card, others, unit, 15)
    vitals.check(bound, cpu=None)


@pytest.mark.parametrize("percent", [1, 5, 20] if LONG_MINUTES else [5])
def test_noise_on_the_bus_of_a_slave(bus, cabinets, gateway, module, percent):
    """What it takes for the beginning of a frame may cost it the frames that are as long: it is the others' traffic that
    lets it find its place again."""
    others = cabinets("ACD")
    card = gateway("B")
    unit = module(card, thinking=0.03, keep=1000)
    others["A"].start_polling("ABCD", timeout=0.2)
    heard = {letter: others[letter] for letter in "CD"}
    right_again(card, heard, unit, 30)
    vitals = Vitals(card)
    end = bus.add_filter(noise(percent, 3))
    time.sleep(NOISE_SECONDS)
    assert card.running
    end()
    right_again(card, heard, unit, 15)
    vitals.check(5000, cpu=None)


@pytest.mark.parametrize("who", ["cabinet", "module", "all"])
def test_silent_and_back(plant, who):
    card, others, unit = plant
    vitals = Vitals(card)
    gone = {"cabinet": [others["C"]], "module": [unit], "all": [*others.values(), unit]}[who]
    expected = {"cabinet": {"MODULE_3_LOST"}, "module": {"MODULE_1_LOST"},
                "all": {"MODULE_1_LOST", "MODULE_2_LOST", "MODULE_3_LOST", "MODULE_4_LOST"}}[who]
    for one in gone:
        one.silent = True
    card.wait_status(lambda s: expected <= set(lost(s)), 60)
    for one in gone:
        one.silent = False
    right_again(card, others, unit, 15)
    vitals.check(3000)
