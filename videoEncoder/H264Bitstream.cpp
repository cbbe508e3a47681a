#include "videoEncoder/H264Bitstream.h"

namespace kestrium {

namespace {

constexpr size_t kNone = static_cast<size_t>(-1);
constexpr size_t kLongestSet = 0xFFFF;

uint8_t byteAt(std::span<const std::byte> s, size_t i) { return std::to_integer<uint8_t>(s[i]); }

// Where the next 00 00 01 at or after from begins, or kNone.
size_t findStartCode(std::span<const std::byte> s, size_t from) {
  for (size_t i = from; i + 3 <= s.size(); ++i) {
    const uint8_t third = byteAt(s, i + 2);
    // A third byte above 1 rules out a code at i, i + 1 and i + 2 alike.
    if (third > 1) {
      i += 2;
      continue;
    }
    if (third == 1 && byteAt(s, i) == 0 && byteAt(s, i + 1) == 0) return i;
  }
  return kNone;
}

void appendBigEndian(std::vector<std::byte>& out, uint32_t value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out.push_back(std::byte((value >> shift) & 0xFF));
}

}  // namespace

AnnexBReader::AnnexBReader(std::span<const std::byte> stream) : stream_(stream) {
  const size_t first = findStartCode(stream, 0);
  at_ = first == kNone ? stream.size() : first + 3;
}

bool AnnexBReader::next(std::span<const std::byte>& unit) {
  while (at_ < stream_.size()) {
    const size_t code = findStartCode(stream_, at_);
    const size_t begin = at_;
    size_t end = code == kNone ? stream_.size() : code;
    at_ = code == kNone ? stream_.size() : code + 3;
    while (end > begin && byteAt(stream_, end - 1) == 0) --end;
    if (end > begin) {
      unit = stream_.subspan(begin, end - begin);
      return true;
    }
  }
  return false;
}

size_t appendLengthPrefixed(std::span<const std::byte> annexB, std::vector<std::byte>& out) {
  const size_t before = out.size();
  AnnexBReader reader(annexB);
  for (std::span<const std::byte> unit; reader.next(unit);) {
    appendBigEndian(out, static_cast<uint32_t>(unit.size()), 4);
    out.insert(out.end(), unit.begin(), unit.end());
  }
  return out.size() - before;
}

std::optional<ParameterSets> findParameterSets(std::span<const std::byte> annexB) {
  ParameterSets sets;
  AnnexBReader reader(annexB);
  for (std::span<const std::byte> unit; reader.next(unit);) {
    const uint8_t type = nalType(unit);
    if (type == kNalTypeSps && sets.sps.empty()) sets.sps.assign(unit.begin(), unit.end());
    if (type == kNalTypePps && sets.pps.empty()) sets.pps.assign(unit.begin(), unit.end());
  }
  if (sets.sps.empty() || sets.pps.empty()) return std::nullopt;
  return sets;
}

std::vector<std::byte> avcConfigurationRecord(std::span<const std::byte> sps, std::span<const std::byte> pps) {
  if (sps.size() < 4 || pps.empty() || sps.size() > kLongestSet || pps.size() > kLongestSet) return {};
  std::vector<std::byte> record;
  record.reserve(11 + sps.size() + pps.size());
  record.push_back(std::byte{1});
  record.insert(record.end(), sps.begin() + 1, sps.begin() + 4);
  record.push_back(std::byte{0xFF});
  record.push_back(std::byte{0xE1});
  appendBigEndian(record, static_cast<uint32_t>(sps.size()), 2);
  record.insert(record.end(), sps.begin(), sps.end());
  record.push_back(std::byte{1});
  appendBigEndian(record, static_cast<uint32_t>(pps.size()), 2);
  record.insert(record.end(), pps.begin(), pps.end());
  return record;
}

std::vector<std::byte> withStartCode(std::span<const std::byte> unit) {
  std::vector<std::byte> out = {std::byte{0}, std::byte{0}, std::byte{0}, std::byte{1}};
  out.insert(out.end(), unit.begin(), unit.end());
  return out;
}

}  // namespace kestrium
