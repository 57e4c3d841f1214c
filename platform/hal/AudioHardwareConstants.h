#pragma once

// The numbers of the audio hardware layer: object ids, property selectors and scopes, status codes
// and format codes. Four-character codes are big-endian numbers, as the platform we mirror spells
// them, so a status prints as the same decimal number everywhere.

#include <cstdint>

namespace bw {

using OSStatus = std::int32_t;
using AudioObjectID = std::uint32_t;
using AudioDeviceID = AudioObjectID;
using AudioObjectPropertySelector = std::uint32_t;
using AudioObjectPropertyScope = std::uint32_t;
using AudioObjectPropertyElement = std::uint32_t;
/// Names one IO proc of a device; 0 is none.
using AudioDeviceIOProcID = std::uint64_t;

constexpr std::uint32_t fourCharCode(const char (&code)[5]) {
    return (std::uint32_t(std::uint8_t(code[0])) << 24) |
           (std::uint32_t(std::uint8_t(code[1])) << 16) |
           (std::uint32_t(std::uint8_t(code[2])) << 8) | std::uint32_t(std::uint8_t(code[3]));
}

// Objects, scopes, elements.
constexpr AudioObjectID kAudioObjectUnknown = 0;
constexpr AudioObjectID kAudioObjectSystemObject = 1;
constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeGlobal = fourCharCode("glob");
constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeInput = fourCharCode("inpt");
constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeOutput = fourCharCode("outp");
constexpr AudioObjectPropertyElement kAudioObjectPropertyElementMain = 0;

// System object properties.
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDevices = fourCharCode("dev#");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyProcessObjectList =
    fourCharCode("prs#");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyTranslatePIDToProcessObject =
    fourCharCode("id2p");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultOutputDevice =
    fourCharCode("dOut");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultInputDevice =
    fourCharCode("dIn ");

// Device properties.
constexpr AudioObjectPropertySelector kAudioDevicePropertyStreams = fourCharCode("stm#");
constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceUID = fourCharCode("uid ");
constexpr AudioObjectPropertySelector kAudioObjectPropertyName = fourCharCode("lnam");
constexpr AudioObjectPropertySelector kAudioDevicePropertyNominalSampleRate = fourCharCode("nsrt");
/// The device's stream format in the input or output scope: an `AudioStreamBasicDescription`.
constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamFormat = fourCharCode("sfmt");
/// Announced (never read) when the device's IO lost audio because its reader fell behind.
constexpr AudioObjectPropertySelector kAudioDeviceProcessorOverload = fourCharCode("over");

// Process object properties.
constexpr AudioObjectPropertySelector kAudioProcessPropertyPID = fourCharCode("ppid");
constexpr AudioObjectPropertySelector kAudioProcessPropertyIsRunningOutput = fourCharCode("piro");

// Tap properties.
constexpr AudioObjectPropertySelector kAudioTapPropertyFormat = fourCharCode("tfmt");
constexpr AudioObjectPropertySelector kAudioTapPropertyDescription = fourCharCode("tdsc");

// Status codes.
constexpr OSStatus kAudioHardwareNoError = 0;
constexpr OSStatus kAudioHardwareNotRunningError = OSStatus(fourCharCode("stop"));
constexpr OSStatus kAudioHardwareUnspecifiedError = OSStatus(fourCharCode("what"));
constexpr OSStatus kAudioHardwareUnknownPropertyError = OSStatus(fourCharCode("who?"));
constexpr OSStatus kAudioHardwareBadPropertySizeError = OSStatus(fourCharCode("!siz"));
constexpr OSStatus kAudioHardwareIllegalOperationError = OSStatus(fourCharCode("nope"));
constexpr OSStatus kAudioHardwareBadObjectError = OSStatus(fourCharCode("!obj"));
constexpr OSStatus kAudioHardwareBadDeviceError = OSStatus(fourCharCode("!dev"));
constexpr OSStatus kAudioHardwareUnsupportedOperationError = OSStatus(fourCharCode("unop"));
constexpr OSStatus kAudioUnitErr_Uninitialized = -10867;
constexpr OSStatus kAudioUnitErr_InvalidProperty = -10879;

// The input node's unit: which device it reads.
constexpr std::uint32_t kAudioOutputUnitProperty_CurrentDevice = 2000;
constexpr std::uint32_t kAudioUnitScope_Global = 0;

// Format codes and flags of an `AudioStreamBasicDescription`.
constexpr std::uint32_t kAudioFormatLinearPCM = fourCharCode("lpcm");
constexpr std::uint32_t kAudioFormatMPEG4AAC = fourCharCode("aac ");
constexpr std::uint32_t kAudioFormatFlagIsFloat = 1u << 0;
constexpr std::uint32_t kAudioFormatFlagIsBigEndian = 1u << 1;
constexpr std::uint32_t kAudioFormatFlagIsSignedInteger = 1u << 2;
constexpr std::uint32_t kAudioFormatFlagIsPacked = 1u << 3;
constexpr std::uint32_t kAudioFormatFlagIsNonInterleaved = 1u << 5;

}  // namespace bw
