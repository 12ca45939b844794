"""The virtual plant: everything around a gateway card, in Python.

The package stands in for what a card meets in a cabinet: the RS-485 bus with the other cabinets' cards, the
measures those cabinets report, and a place to run the real daemon in without touching the machine it runs on. It
uses the standard library only and shares no code with the daemon: frames and records are coded here a second time,
from the same tables, so that a slip on either side shows.

The modules, from the bottom up:

  crc, frames      the bus frame: build, parse, hunt for frames in a byte stream
  records          every record that leaves the daemon, packed and little-endian, with field names
  tree             the nodes in shared memory, found by path
  shm              System V segments: key, list, read (through ctypes)
  statusfile       the JSON document that the daemon replaces several times a second
  loop             one thread that runs timers and file descriptors
  bus              a bus or line at its baud rate: pseudo-terminals and simulated nodes on one wire, recorded
  cabinet          a simulated card on the bus: answers, misbehaves, or acts as the master
  mlink            the frame of the module line and its nibble-coded numbers
  mstates, mdata   what a power module tells: its 176 status bits, its fields in the data of each reply
  unit             how a power module behaves: modes, commands, timers
  module           a simulated power module on its line: answers, refuses, misbehaves, records
  plant            measures of a three-phase UPS plant that move plausibly, for cabinets and for modules
  logfile          the daemon's log, waited for and taken apart
  sandbox, jail    a private view of the machine for one daemon: devices, status file, segments, clock, halt
  gateway          the real daemon in a sandbox, with what it publishes
  view             the live picture on a terminal
  beliefs          what several cards believe of the same plant, and where they differ
  scene            the bus with its gateways, cabinets and modules
  system           the whole system: four cards with their modules, and what befalls them
  run              the entry of the demonstration: python3 -m sim.run
"""
