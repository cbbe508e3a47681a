#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kestrium {

// The facts of the stream being broadcast, written by the capture start and the
// recorder's thread and read by the publisher. One per process: each broadcast
// start overwrites it.
struct BroadcastInfo {
  uint32_t videoBitrate = 0;   // kbps
  uint32_t frameRate = 0;      // whole frames per second
  uint32_t audioBitrate = 0;   // kbps
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t audioSampleRate = 0;
  uint32_t channels = 2;
  uint16_t aacConfiguration = 0;
  std::vector<std::byte> sps;
  std::vector<std::byte> pps;
  std::u16string address;
  std::u16string stream;
};

// The process's block, with the lock that its readers and writers take.
struct SharedBroadcastInfo {
  std::mutex lock;
  BroadcastInfo info;
};
SharedBroadcastInfo& broadcastInfo();

}  // namespace kestrium
