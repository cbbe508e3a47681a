#pragma once

// The record a capture's client and server share without a lock. Each word has
// one writer at a time; the two free words hand the source and encoded slots
// over. A slot's data is complete before its free word changes (release store),
// and the other side reads the free word before the data (acquire load).

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kestrium {

struct CommonData {
  uint32_t topDownRows;       // the encoder wants rows top-down
  uint32_t redFirst;          // the encoder wants the red byte first
  uint32_t sourceFree;        // 1: the client may fill the source buffer
  uint32_t sourceSize;        // bytes in the source buffer; fixed by the first frame
  uint32_t sourceTimed;       // handed on with the frame
  uint32_t sourcePosition;    // time of the frame, handed on
  uint32_t audioPosition;     // handed to the audio graph on every pass
  uint32_t encodedFree;       // non-zero: the encoder may fill the encoded buffer
  uint32_t encodedSize;       // bytes of the encoded frame
  uint32_t encodedTimed;      // 0: the position is a frame number; else milliseconds
  uint32_t encodedPosition;   // frame number or milliseconds
  uint32_t encodedKey;        // non-zero for a key frame
  float recordedSeconds;      // -1.0 until the recorder's first pass
  float bufferedSeconds;      // -1.0 until the recorder's first pass
  uint32_t megabytesWritten;  // bytes written >> 20
  uint32_t freeMegabytes;     // free space at the destination; 0 if unknown
  uint32_t bytesSent;         // low 32 bits of the broadcast byte count
};
static_assert(sizeof(CommonData) == 68);
static_assert(offsetof(CommonData, redFirst) == 4);
static_assert(offsetof(CommonData, sourceFree) == 8);
static_assert(offsetof(CommonData, sourceSize) == 12);
static_assert(offsetof(CommonData, sourceTimed) == 16);
static_assert(offsetof(CommonData, sourcePosition) == 20);
static_assert(offsetof(CommonData, audioPosition) == 24);
static_assert(offsetof(CommonData, encodedFree) == 28);
static_assert(offsetof(CommonData, encodedSize) == 32);
static_assert(offsetof(CommonData, encodedTimed) == 36);
static_assert(offsetof(CommonData, encodedPosition) == 40);
static_assert(offsetof(CommonData, encodedKey) == 44);
static_assert(offsetof(CommonData, recordedSeconds) == 48);
static_assert(offsetof(CommonData, bufferedSeconds) == 52);
static_assert(offsetof(CommonData, megabytesWritten) == 56);
static_assert(offsetof(CommonData, freeMegabytes) == 60);
static_assert(offsetof(CommonData, bytesSent) == 64);

// Reads a shared word after whatever its writer published before it.
template <class T>
T loadShared(T& word) {
  return std::atomic_ref<T>(word).load(std::memory_order_acquire);
}

// Publishes a shared word after everything written before it.
template <class T>
void storeShared(T& word, T value) {
  std::atomic_ref<T>(word).store(value, std::memory_order_release);
}

}  // namespace kestrium
