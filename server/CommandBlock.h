#pragma once

// The command channel's wire formats. Each is a plain little-endian record whose
// layout is fixed: the offsets are checked below, so a change that moves a field
// does not build.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "audio/StereoMixSettings.h"

namespace kestrium {

inline constexpr std::u16string_view kCommandMappingName = u"Kestrium5CaptureServer_Command";
inline constexpr std::u16string_view kCommandEventName = u"Kestrium5CaptureServer_Command_Event";
inline constexpr std::u16string_view kCommandReplyName = u"Kestrium5CaptureServer_Command_Reply";
inline constexpr std::u16string_view kCommandMutexName = u"Kestrium5CaptureServer_Command_Mutex";

inline constexpr std::u16string_view kInstanceMutexName = u"Kestrium5CaptureServer_Mutex";
inline constexpr std::u16string_view kShutdownEventName = u"Kestrium5CaptureServer_Shutdown";
inline constexpr std::u16string_view kFeaturesName = u"Kestrium5CaptureServerFeatures";
inline constexpr std::u16string_view kWindowName = u"Kestrium5-32-CaptureServer";

enum Command : uint32_t {
  kCommandStart = 1,
  kCommandStop = 2,
  kCommandEndPrerecording = 3,
  kCommandPause = 4,
};


struct AudioSourceEntry {
  char16_t deviceId[128];  // empty ends the list
  uint32_t volume;         // percent
};
static_assert(sizeof(AudioSourceEntry) == 260);

// Command 1: everything a capture is started with.
struct StartParameters {
  char16_t recorderName[1024];
  char16_t destinationFolder[260];
  char16_t baseName[1024];
  char16_t encoder[64];
  uint32_t container;  // 0 AVI, else MP4
  uint32_t width;
  uint32_t height;
  uint32_t frameRate;  // thousandths of a frame per second
  uint32_t threads;
  float prerecordLimit;  // seconds
  uint32_t writeAtOnce;
  uint32_t folderByName;
  uint32_t folderByDate;
  uint32_t reservedFlag;
  uint32_t profile;
  uint32_t bitrate;  // kbps
  uint32_t targetUsage;
  uint32_t useHardware;
  uint32_t fullColor;
  uint32_t lowLatency;
  uint32_t fullColorRange;
  uint32_t fullColorSpace;
  uint32_t mjpegQuality;
  uint32_t vfwCodec;  // fourcc
  uint32_t audioEncoding;
  uint32_t audioBitrate;  // kbps
  uint32_t stereoMode;
  uint32_t mixer;
  uint32_t sideTracks;
  StereoMixSettings stereoSettings;
  AudioSourceEntry audioSources[16];
  uint32_t broadcast;
  char16_t broadcastAddress[1024];
  char16_t broadcastStream[1024];
};
static_assert(sizeof(StartParameters) == 13136);
static_assert(offsetof(StartParameters, destinationFolder) == 2048);
static_assert(offsetof(StartParameters, baseName) == 2568);
static_assert(offsetof(StartParameters, encoder) == 4616);
static_assert(offsetof(StartParameters, container) == 4744);
static_assert(offsetof(StartParameters, width) == 4748);
static_assert(offsetof(StartParameters, height) == 4752);
static_assert(offsetof(StartParameters, frameRate) == 4756);
static_assert(offsetof(StartParameters, threads) == 4760);
static_assert(offsetof(StartParameters, prerecordLimit) == 4764);
static_assert(offsetof(StartParameters, writeAtOnce) == 4768);
static_assert(offsetof(StartParameters, folderByName) == 4772);
static_assert(offsetof(StartParameters, folderByDate) == 4776);
static_assert(offsetof(StartParameters, reservedFlag) == 4780);
static_assert(offsetof(StartParameters, profile) == 4784);
static_assert(offsetof(StartParameters, bitrate) == 4788);
static_assert(offsetof(StartParameters, targetUsage) == 4792);
static_assert(offsetof(StartParameters, useHardware) == 4796);
static_assert(offsetof(StartParameters, fullColor) == 4800);
static_assert(offsetof(StartParameters, lowLatency) == 4804);
static_assert(offsetof(StartParameters, fullColorRange) == 4808);
static_assert(offsetof(StartParameters, fullColorSpace) == 4812);
static_assert(offsetof(StartParameters, mjpegQuality) == 4816);
static_assert(offsetof(StartParameters, vfwCodec) == 4820);
static_assert(offsetof(StartParameters, audioEncoding) == 4824);
static_assert(offsetof(StartParameters, audioBitrate) == 4828);
static_assert(offsetof(StartParameters, stereoMode) == 4832);
static_assert(offsetof(StartParameters, mixer) == 4836);
static_assert(offsetof(StartParameters, sideTracks) == 4840);
static_assert(offsetof(StartParameters, stereoSettings) == 4844);
static_assert(offsetof(StartParameters, audioSources) == 4876);
static_assert(offsetof(StartParameters, broadcast) == 9036);
static_assert(offsetof(StartParameters, broadcastAddress) == 9040);
static_assert(offsetof(StartParameters, broadcastStream) == 11088);

// Command 2.
struct StopParameters {
  char16_t recorderName[1024];
  uint32_t deleteFiles;
};
static_assert(offsetof(StopParameters, deleteFiles) == 2048);

// Command 3.
struct EndPrerecordingParameters {
  char16_t recorderName[1024];
};

// Command 4.
struct PauseParameters {
  char16_t recorderName[1024];
  uint32_t paused;  // the wanted state
};
static_assert(offsetof(PauseParameters, paused) == 2048);

struct CommandBlock {
  uint32_t command;
  uint32_t replyWanted;
  union {
    StartParameters start;
    StopParameters stop;
    EndPrerecordingParameters endPrerecording;
    PauseParameters pause;
  };
};
static_assert(sizeof(CommandBlock) == 13144);
static_assert(offsetof(CommandBlock, replyWanted) == 4);
static_assert(offsetof(CommandBlock, start) == 8);

// The hardware encoders this machine has, as the server found them at start.
struct FeaturesBlock {
  uint32_t quickSync;
  uint32_t nvenc;
  uint32_t amdVce;
};
static_assert(sizeof(FeaturesBlock) == 12);

// A wire string: up to its first NUL, or the whole array when a client left none.
template <size_t N>
std::u16string_view wireString(const char16_t (&field)[N]) {
  const std::u16string_view whole(field, N);
  return whole.substr(0, whole.find(u'\0'));
}

// Copies text into a wire string, cut to leave room for the terminating NUL.
template <size_t N>
void setWireString(char16_t (&field)[N], std::u16string_view text) {
  const size_t n = text.size() < N ? text.size() : N - 1;
  text.copy(field, n);
  field[n] = u'\0';
}

// A command of those that carry a recorder name and one word after it (stop's
// delete flag, pause's wanted state), asking for a reply.
inline CommandBlock namedCommand(uint32_t command, std::u16string_view name, uint32_t word) {
  CommandBlock block{};
  block.command = command;
  block.replyWanted = 1;
  setWireString(block.stop.recorderName, name);
  block.stop.deleteFiles = word;  // the word at offset 2048 of every named command
  return block;
}

}  // namespace kestrium
