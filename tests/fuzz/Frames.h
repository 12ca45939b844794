// Frames of both protocols out of an input: fixed up, so that they get past the checks, unless the input wants them
// spoilt.
#ifndef TESTS_FUZZ_FRAMES_H
#define TESTS_FUZZ_FRAMES_H

#include <string>

#include "fuzz/Harness.h"

namespace fuzz {

/// Two letters of a command, "BS".
using Command = std::string;

// An input describes a frame as: shape, source, destination, command, length, data. Bits of the shape:
constexpr std::uint8_t OWN_COMMAND = 0x01;  // two bytes of the input instead of one of the table
constexpr std::uint8_t LONG = 0x02;         // a second byte of the length
constexpr std::uint8_t SPOILT = 0x04;       // a byte of the frame is changed afterwards: place and value
constexpr std::uint8_t CUT = 0x08;          // the frame ends early: two bytes, its length
constexpr std::uint8_t ODD_LENGTH = 0x10;   // it announces another length: two bytes

/// A frame of the bus.
Bytes busFrame(Input& in);
/// The same with the addresses given.
Bytes busFrame(Input& in, std::uint8_t src, std::uint8_t dest);
/// A frame of the module link; at most 243 bytes of data.
Bytes moduleFrame(Input& in);
/// The same with the addresses given, and a command of its own if that isn't empty.
Bytes moduleFrame(Input& in, std::uint8_t src, std::uint8_t dest, const Command& command = "");

/// A sound frame of either protocol.
Bytes busFrame(std::uint8_t src, std::uint8_t dest, const Command& command, const Bytes& data);
Bytes moduleFrame(std::uint8_t src, std::uint8_t dest, const Command& command, const Bytes& data);
/// Whether the bytes are one sound frame of the bus, of the module link.
bool isBusFrame(const Bytes& bytes);
bool isModuleFrame(const Bytes& bytes);

/// Whether a frame of the module link is meant for the cabinet's bypass unit. That has no slot, so no tunnelled query to
/// it is ever answered; a program that asked its own card for its identification nevertheless would be stopped.
bool isForBypassUnit(const Bytes& frame);

/// A command of the bus, of the module link.
Command busCommand(Input& in, std::uint8_t shape);
Command moduleCommand(Input& in, std::uint8_t shape);
/// Data that the command's frame has in its usual size, 0 where it has none.
std::size_t usualModuleLength(const Command& command);

}  // namespace fuzz

#endif
