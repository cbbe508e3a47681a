#pragma once

// What the MP4 tests share: big-endian byte strings, a walker of the boxes of
// our own (so that a reader we did not write is not the only judge), and real
// H.264 from ffmpeg split into the frames an encoder would hand over.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"

namespace kestrium::mp4test {

using Bytes = std::vector<uint8_t>;

// Big-endian fields, joined by cat() into the bytes a box should hold.
inline Bytes be(uint64_t v, size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(v >> (8 * (n - 1 - i)));
  return b;
}
inline Bytes u8(uint32_t v) { return be(v, 1); }
inline Bytes u16(uint32_t v) { return be(v, 2); }
inline Bytes u32(uint32_t v) { return be(v, 4); }
inline Bytes u64(uint64_t v) { return be(v, 8); }
inline Bytes str(std::string_view s) { return {s.begin(), s.end()}; }
inline Bytes zeros(size_t n) { return Bytes(n); }
inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
inline std::span<const std::byte> asBytes(const Bytes& b) { return std::as_bytes(std::span(b)); }
inline Bytes sized(const Bytes& b, size_t width) { return cat({be(b.size(), width), b}); }

// Byte strings compare as hex in groups of four, so that a failure shows where.
inline std::string hex(const Bytes& b) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < b.size(); ++i) {
    if (i > 0 && i % 4 == 0) out += ' ';
    out += {kDigits[b[i] >> 4], kDigits[b[i] & 15]};
  }
  return out;
}

inline uint64_t read(std::span<const uint8_t> d, size_t at, size_t n) {
  if (at + n > d.size()) throw std::out_of_range("read past the end of a box");
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v = v << 8 | d[at + i];
  return v;
}

// An AVC configuration record as the encoder gives it.
inline Bytes avcRecord(const Bytes& sps, const Bytes& pps) {
  return cat({Bytes{1, 0x64, 0x00, 0x0C, 0xFF, 0xE1}, sized(sps, 2), u8(1), sized(pps, 2)});
}

struct Box {
  std::string code;
  uint64_t position;  // of its header in the file
  size_t header;
  std::span<const uint8_t> body;
  uint32_t u32(size_t at) const { return static_cast<uint32_t>(read(body, at, 4)); }
  std::string hex(size_t size = SIZE_MAX) const {
    return mp4test::hex({body.begin(), body.begin() + static_cast<ptrdiff_t>(std::min(size, body.size()))});
  }
};

inline std::vector<Box> parseBoxes(std::span<const uint8_t> data, uint64_t position) {
  std::vector<Box> boxes;
  for (size_t at = 0; at < data.size();) {
    uint64_t size = read(data, at, 4);
    const std::string code(reinterpret_cast<const char*>(data.data()) + at + 4, 4);
    size_t header = 8;
    if (size == 1) size = read(data, at + 8, 8), header = 16;
    if (size < header || size > data.size() - at) throw std::runtime_error("box '" + code + "' overruns its parent");
    boxes.push_back({code, position + at, header, data.subspan(at + header, size - header)});
    at += size;
  }
  return boxes;
}

inline std::vector<Box> children(const Box& box) {
  // The bytes of its own that a box holding boxes has in front of them.
  static const std::map<std::string, size_t> kSkip = {
      {"moov", 0}, {"trak", 0},    {"mdia", 0}, {"minf", 0}, {"dinf", 0}, {"stbl", 0},  {"udta", 0},
      {"ilst", 0}, {"\xA9too", 0}, {"meta", 4}, {"dref", 8}, {"stsd", 8}, {"mp4a", 28}, {"avc1", 78}};
  const auto skip = kSkip.find(box.code);
  if (skip == kSkip.end()) throw std::runtime_error("'" + box.code + "' holds no boxes");
  return parseBoxes(box.body.subspan(skip->second), box.position + box.header + skip->second);
}

inline std::vector<std::string> codes(const std::vector<Box>& boxes) {
  std::vector<std::string> out;
  for (const Box& b : boxes) out.push_back(b.code);
  return out;
}

// A path such as "moov/trak[1]/mdia": [n] picks the n-th box of that code, from 0.
inline Box find(std::vector<Box> level, std::string_view path) {
  const std::string whole(path);
  for (;;) {
    const size_t slash = path.find('/');
    std::string_view step = path.substr(0, slash);
    size_t index = 0;
    if (const size_t open = step.find('['); open != std::string_view::npos) {
      index = std::stoul(std::string(step.substr(open + 1)));
      step = step.substr(0, open);
    }
    const auto found =
        std::find_if(level.begin(), level.end(), [&](const Box& b) { return b.code == step && index-- == 0; });
    if (found == level.end()) throw std::runtime_error("no box at " + whole);
    if (slash == std::string_view::npos) return *found;
    level = children(*found);
    path = path.substr(slash + 1);
  }
}

struct Mp4 {
  Bytes data;  // the bytes from base on
  uint64_t base = 0;
  std::vector<Box> top = parseBoxes(data, base);
  Box operator[](std::string_view path) const { return find(top, path); }
};

inline std::vector<uint64_t> chunkOffsets(const Box& stbl) {
  const std::vector<std::string> names = codes(children(stbl));
  const bool wide = std::find(names.begin(), names.end(), "co64") != names.end();
  const Box table = find(children(stbl), wide ? "co64" : "stco");
  const size_t width = wide ? 8 : 4;
  std::vector<uint64_t> out;
  for (uint32_t i = 0, n = table.u32(4); i < n; ++i) out.push_back(read(table.body, 8 + i * width, width));
  return out;
}

using Pairs = std::vector<std::pair<uint32_t, uint32_t>>;

// {sample count, delta} of stts; {first chunk, samples per chunk} of stsc.
inline Pairs pairsOf(const Box& b) {
  const size_t entry = b.code == "stsc" ? 12 : 8;
  Pairs out;
  for (uint32_t i = 0, n = b.u32(4); i < n; ++i) {
    out.emplace_back(b.u32(8 + i * entry), b.u32(12 + i * entry));
    if (entry == 12) {
      EXPECT_EQ(b.u32(16 + i * entry), 1u) << "sample description index";
    }
  }
  return out;
}
inline std::vector<uint32_t> numbersOf(const Box& b, size_t countAt) {
  std::vector<uint32_t> out;
  for (uint32_t i = 0, n = b.u32(countAt); i < n; ++i) out.push_back(b.u32(countAt + 4 + 4 * i));
  return out;
}

// Every sample's bytes, found the way a player finds them.
inline std::vector<std::span<const uint8_t>> sampleBytes(const Mp4& f, const Box& stbl) {
  const Pairs stsc = pairsOf(find(children(stbl), "stsc"));
  const std::vector<uint32_t> sizes = numbersOf(find(children(stbl), "stsz"), 8);
  const std::vector<uint64_t> offsets = chunkOffsets(stbl);
  std::vector<std::span<const uint8_t>> out;
  for (size_t chunk = 0, e = 0; chunk < offsets.size(); ++chunk) {
    while (e + 1 < stsc.size() && stsc[e + 1].first <= chunk + 1) ++e;
    for (uint64_t i = 0, at = offsets[chunk] - f.base; i < stsc.at(e).second && out.size() < sizes.size(); ++i) {
      const uint32_t size = sizes[out.size()];
      if (at + size > f.data.size()) throw std::out_of_range("a sample past the end of the file");
      out.push_back(std::span(f.data).subspan(at, size));
      at += size;
    }
  }
  return out;
}

// NAL units of an Annex B stream, without their start codes.
inline std::vector<Bytes> nalUnits(const std::vector<char>& stream) {
  const auto* p = reinterpret_cast<const uint8_t*>(stream.data());
  std::vector<Bytes> units;
  std::optional<size_t> start;
  for (size_t i = 0; i + 3 <= stream.size(); ++i) {
    if (p[i] != 0 || p[i + 1] != 0 || p[i + 2] != 1) continue;
    if (start) units.emplace_back(p + *start, p + i - (p[i - 1] == 0 ? 1 : 0));
    start = i + 3;
  }
  if (start) units.emplace_back(p + *start, p + stream.size());
  return units;
}

// Real H.264 as the encoder hands it to the writer: each frame's slices as
// length-prefixed units, the parameter sets apart (SEI left out).
struct H264 {
  Bytes sps, pps;
  std::vector<std::pair<Bytes, bool>> frames;  // the frame, whether it is a key frame
  Bytes record() const { return avcRecord(sps, pps); }
};

// frames of a 160x120 test picture at 30 a second from x264, without B-frames (so the
// file needs no composition offsets) and with an IDR frame every gop frames.
inline void makeH264(const std::filesystem::path& folder, size_t frames, size_t gop, H264& out) {
  const auto file = folder / "source.h264";
  std::string log;
  ASSERT_EQ(test::runTool(KESTRIUM_FFMPEG,
                          {"-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=160x120:rate=30", "-frames:v",
                           std::to_string(frames), "-pix_fmt", "yuv420p", "-c:v", "libx264", "-bf", "0", "-g",
                           std::to_string(gop), "-bsf:v", "h264_mp4toannexb", "-f", "h264", file.string()},
                          log),
            0)
      << log;
  for (const Bytes& nal : nalUnits(test::readBytes(file))) {
    const int type = nal.at(0) & 0x1F;
    if (type == 7 && out.sps.empty()) out.sps = nal;
    if (type == 8 && out.pps.empty()) out.pps = nal;
    if (type != 1 && type != 5) continue;
    // first_mb_in_slice 0 starts a new frame.
    if ((nal.at(1) & 0x80) != 0 || out.frames.empty()) out.frames.emplace_back();
    out.frames.back().first = cat({out.frames.back().first, sized(nal, 4)});
    out.frames.back().second |= type == 5;
  }
  ASSERT_EQ(out.frames.size(), frames);
}

}  // namespace kestrium::mp4test
