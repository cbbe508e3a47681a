#pragma once

// What the fake driver libraries of the tests share: the failures a test sets
// up by call name, and the clip they answer with. Each fake is a shared library
// of its own, so this is all inline.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace kestrium::fake {

using AccessUnit = std::vector<uint8_t>;

// The calls a test made to fail: each on its occurrence-th call from when it was
// set (1: the next one), or on every call when the occurrence is 0.
class Failures {
 public:
  void add(const char* call, int status, int occurrence) { list_.push_back({call, status, occurrence}); }
  void clear() { list_.clear(); }

  // The status the call fails with this time, if any. Every countdown of the
  // call advances, so failures set for different occurrences of one call do
  // not disturb each other.
  std::optional<int> take(const char* call) {
    std::optional<int> failure;
    for (auto it = list_.begin(); it != list_.end();) {
      if (it->call != call) {
        ++it;
      } else if (it->countdown == 0) {
        if (!failure) failure = it->status;
        ++it;
      } else if (--it->countdown == 0) {
        if (!failure) failure = it->status;
        it = list_.erase(it);
      } else {
        ++it;
      }
    }
    return failure;
  }

  // A failure from the environment, "call:status:occurrence", for a fake that a
  // server process loads where the test's control functions cannot reach.
  void addFromEnvironment(const char* variable) {
    const char* value = std::getenv(variable);
    if (value == nullptr) return;
    const std::string text(value);
    const size_t a = text.find(':');
    const size_t b = a == std::string::npos ? a : text.find(':', a + 1);
    if (b == std::string::npos) return;
    add(text.substr(0, a).c_str(), std::atoi(text.substr(a + 1, b - a - 1).c_str()), std::atoi(text.c_str() + b + 1));
  }

 private:
  struct Failure {
    std::string call;
    int status;
    int countdown;
  };
  std::vector<Failure> list_;
};

// What every fake keeps of the calls it is made: the log, the rules broken, the
// failures a test set up, and the clip it answers with. A fake's world derives
// from it, so a reset starts them over.
struct Journal {
  std::vector<AccessUnit> clip;
  Failures failures;
  std::string log, violations;
  std::string logCopy, violationsCopy;  // what the test was last handed

  // Logs the call and tells whether the test made it fail this time.
  std::optional<int> enter(const char* call) {
    log += call;
    log += '\n';
    return failures.take(call);
  }
  // Records a rule broken, and answers the status the call returns for it.
  template <typename R>
  R rule(const char* call, const std::string& what, R status) {
    violations += std::string(call) + ": " + what + '\n';
    return status;
  }
  void fail(const char* call, int status, int occurrence) {
    if (call && occurrence >= 0) failures.add(call, status, occurrence);
  }
  void addAccessUnit(const uint8_t* annexB, size_t size) { clip.emplace_back(annexB, annexB + (annexB ? size : 0)); }
  const char* callLog() {
    logCopy = log;
    return logCopy.c_str();
  }
};

// The record of picture index for the test, 1; or 0 when there is none.
template <typename Records, typename Picture>
int pictureAt(const Records& records, int index, Picture* out) {
  if (index < 0 || static_cast<size_t>(index) >= records.size() || !out) return 0;
  *out = records[static_cast<size_t>(index)].picture;
  return 1;
}

// A picture's NV12 planes packed as the tests compare them: width bytes of each
// luma row, then of each of height / 2 chroma rows. Exactly those bytes are
// read, so a sanitizer reports a surface the server made too small.
inline std::vector<uint8_t> packNv12(const uint8_t* luma, const uint8_t* chroma, size_t pitch, size_t width,
                                     size_t height) {
  std::vector<uint8_t> out(width * (height + height / 2));
  for (size_t y = 0; y < height + height / 2; ++y)
    std::memcpy(&out[y * width], y < height ? luma + y * pitch : chroma + (y - height) * pitch, width);
  return out;
}

template <typename T>
std::string num(T id) {
  return "#" + std::to_string(id);
}

// The first NAL unit of that type in an access unit, behind a 4-byte start
// code (the zero byte of a following 4-byte one left off); empty if none.
inline AccessUnit findNal(const AccessUnit& unit, int type) {
  auto startCode = [&](size_t i) { return i + 2 < unit.size() && !unit[i] && !unit[i + 1] && unit[i + 2] == 1; };
  for (size_t i = 0; i + 3 < unit.size(); ++i) {
    if (!startCode(i) || (unit[i + 3] & 0x1F) != type) continue;
    size_t end = i + 3;
    while (end < unit.size() && !startCode(end)) ++end;
    while (end < unit.size() && end > i + 3 && !unit[end - 1]) --end;
    AccessUnit nal{0, 0, 0, 1};
    nal.insert(nal.end(), &unit[i + 3], unit.data() + end);
    return nal;
  }
  return {};
}

// The access units of an Annex B stream, each from its delimiter (NAL type 9,
// with the leading zero of a 4-byte start code) to the next.
inline std::vector<AccessUnit> accessUnitsOf(const std::vector<uint8_t>& stream) {
  std::vector<size_t> starts;
  for (size_t i = 0; i + 3 < stream.size(); ++i) {
    if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1 && (stream[i + 3] & 0x1F) == 9) {
      starts.push_back(i > 0 && stream[i - 1] == 0 ? i - 1 : i);
    }
  }
  starts.push_back(stream.size());
  std::vector<AccessUnit> units;
  for (size_t k = 0; k + 1 < starts.size(); ++k) {
    units.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(starts[k]),
                       stream.begin() + static_cast<std::ptrdiff_t>(starts[k + 1]));
  }
  return units;
}

// The clip of the Annex B file the environment variable names; empty without one.
inline std::vector<AccessUnit> clipFromEnvironment(const char* variable) {
  const char* path = std::getenv(variable);
  if (path == nullptr) return {};
  std::ifstream file(path, std::ios::binary);
  return accessUnitsOf({std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
}

}  // namespace kestrium::fake
