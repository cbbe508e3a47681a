#include "tools/AviReader.h"

#include <cstring>

namespace kestrium::tools {

namespace {

constexpr uint32_t code(const char (&c)[5]) {
  return static_cast<uint32_t>(static_cast<uint8_t>(c[0])) | (static_cast<uint32_t>(static_cast<uint8_t>(c[1])) << 8) |
         (static_cast<uint32_t>(static_cast<uint8_t>(c[2])) << 16) |
         (static_cast<uint32_t>(static_cast<uint8_t>(c[3])) << 24);
}

uint16_t u16(const std::byte* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

// A four-character code as text, unprintable bytes as '?'.
std::string name(uint32_t c) {
  std::string s;
  for (int i = 0; i < 4; ++i) {
    const auto ch = static_cast<char>((c >> (8 * i)) & 0xFF);
    s += (ch >= 32 && ch < 127) ? ch : '?';
  }
  return "'" + s + "'";
}

// Nesting deeper than this is no AVI written by anyone.
constexpr int kMaxDepth = 8;

}  // namespace

bool FileSource::open(const std::filesystem::path& path) {
  if (!file_.open(path, platform::File::Mode::ReadOnly)) return false;
  const int64_t size = file_.size();
  if (size < 0) return false;
  size_ = static_cast<uint64_t>(size);
  return true;
}

bool FileSource::read(uint64_t offset, std::span<std::byte> out) {
  if (offset > size_ || out.size() > size_ - offset) return false;
  size_t done = 0;
  while (done < out.size()) {
    const int64_t n = file_.readAt(offset + done, out.subspan(done));
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool MemorySource::read(uint64_t offset, std::span<std::byte> out) {
  if (offset > bytes_.size() || out.size() > bytes_.size() - offset) return false;
  // An empty span may have no data at all, which memcpy must not be given.
  if (!out.empty()) std::memcpy(out.data(), bytes_.data() + offset, out.size());
  return true;
}

bool AviReader::open(ByteSource& source, std::string& error) {
  source_ = &source;
  video_ = {};
  haveVideo_ = haveHeader_ = haveMovi_ = false;
  streams_ = 0;
  riffs_ = 0;
  frames_.clear();
  candidates_.clear();

  const uint64_t fileSize = source.size();
  uint64_t pos = 0;
  while (pos < fileSize) {
    std::byte head[12];
    if (!source.read(pos, head)) {
      error = "stray " + std::to_string(fileSize - pos) + " bytes after the last RIFF" + atByte(pos);
      return false;
    }
    const uint32_t id = readLe32(head), size = readLe32(head + 4), form = readLe32(head + 8);
    const uint32_t expectedForm = riffs_ == 0 ? code("AVI ") : code("AVIX");
    if (id != code("RIFF") || form != expectedForm) {
      error = riffs_ == 0 ? "not an AVI file: it starts with " + name(id) + " " + name(form)
                          : "expected RIFF 'AVIX'" + atByte(pos) + ", found " + name(id) + " " + name(form);
      return false;
    }
    if (size < 4) {
      error = "RIFF" + atByte(pos) + " claims " + std::to_string(size) + " bytes, too few for its form";
      return false;
    }
    const uint64_t end = pos + 8 + size;
    if (end > fileSize) {
      error = "RIFF " + name(form) + atByte(pos) + " claims " + std::to_string(size) +
              " bytes, past the end of the file (" + std::to_string(fileSize) + " bytes): the file is cut short or was never closed";
      return false;
    }
    ++riffs_;
    if (!walkList(pos + 12, end, form, error, 0)) return false;
    pos = end + (size & 1);
  }
  if (riffs_ == 0) {
    error = "the file is empty";
    return false;
  }
  if (!haveHeader_) {
    error = "no 'hdrl' header list";
    return false;
  }
  if (!haveVideo_) {
    error = "no video stream in the header";
    return false;
  }
  if (!haveMovi_) {
    error = "no 'movi' list";
    return false;
  }
  const auto tens = static_cast<uint8_t>('0' + video_.number / 10), ones = static_cast<uint8_t>('0' + video_.number % 10);
  const uint16_t digits = static_cast<uint16_t>(tens | (ones << 8));
  for (const auto& [d, chunk] : candidates_) {
    if (d == digits) frames_.push_back(chunk);
  }
  candidates_.clear();
  return true;
}

bool AviReader::walkList(uint64_t begin, uint64_t end, uint32_t listType, std::string& error, int depth) {
  if (depth > kMaxDepth) {
    error = "lists nested too deep" + atByte(begin);
    return false;
  }
  uint64_t pos = begin;
  while (pos < end) {
    std::byte head[12];
    if (end - pos < 8 || !source_->read(pos, std::span(head, 8))) {
      error = std::to_string(end - pos) + " stray bytes at the end of list " + name(listType) + atByte(pos);
      return false;
    }
    const uint32_t id = readLe32(head), size = readLe32(head + 4);
    const uint64_t dataAt = pos + 8;
    if (size > end - dataAt) {
      error = "chunk " + name(id) + atByte(pos) + " of " + std::to_string(size) +
              " bytes runs past the end of its list " + name(listType) + " (" + std::to_string(end - dataAt) + " bytes left)";
      return false;
    }
    const uint64_t next = dataAt + size + (size & 1);
    if (id == code("LIST")) {
      if (size < 4 || !source_->read(dataAt, std::span(head + 8, 4))) {
        error = "LIST" + atByte(pos) + " too short for its type";
        return false;
      }
      const uint32_t type = readLe32(head + 8);
      if (listType == code("AVI ") && type == code("hdrl")) {
        if (haveHeader_) {
          error = "second 'hdrl' list" + atByte(pos);
          return false;
        }
        haveHeader_ = true;
        if (!walkList(dataAt + 4, dataAt + size, type, error, depth + 1)) return false;
      } else if (listType == code("hdrl") && type == code("strl")) {
        if (!readStreamList(dataAt + 4, dataAt + size, error)) return false;
        ++streams_;
      } else if (type == code("movi")) {
        if (listType != code("AVI ") && listType != code("AVIX")) {
          error = "'movi' list inside " + name(listType) + atByte(pos);
          return false;
        }
        if (!haveHeader_) {
          error = "'movi' list" + atByte(pos) + " comes before the 'hdrl' header";
          return false;
        }
        haveMovi_ = true;
        if (!walkList(dataAt + 4, dataAt + size, type, error, depth + 1)) return false;
      } else if (type == code("rec ") && (listType == code("movi") || listType == code("rec "))) {
        if (!walkList(dataAt + 4, dataAt + size, type, error, depth + 1)) return false;
      }
      // Other lists (odml, INFO...) say nothing the frames need.
    } else if (listType == code("movi") || listType == code("rec ")) {
      // Stream chunks are two digits and two letters: "00dc" and "00db" are
      // video frames; ixNN, JUNK and audio chunks pass by.
      const auto b2 = static_cast<char>((id >> 16) & 0xFF), b3 = static_cast<char>((id >> 24) & 0xFF);
      if (b2 == 'd' && (b3 == 'c' || b3 == 'b')) candidates_.push_back({static_cast<uint16_t>(id & 0xFFFF), {dataAt, size}});
    }
    // A last odd chunk whose pad byte some writer left out of the list is fine.
    pos = next > end ? end : next;
  }
  return true;
}

bool AviReader::readStreamList(uint64_t begin, uint64_t end, std::string& error) {
  std::byte strh[56] = {};
  std::vector<std::byte> strf;
  bool haveStrh = false, haveStrf = false;
  uint64_t pos = begin;
  while (pos < end) {
    std::byte head[8];
    if (end - pos < 8 || !source_->read(pos, head)) {
      error = "stray bytes at the end of a 'strl' list" + atByte(pos);
      return false;
    }
    const uint32_t id = readLe32(head), size = readLe32(head + 4);
    if (size > end - pos - 8) {
      error = "chunk " + name(id) + atByte(pos) + " runs past the end of its 'strl' list";
      return false;
    }
    if (id == code("strh")) {
      if (size < 56) {
        error = "'strh'" + atByte(pos) + " of " + std::to_string(size) + " bytes, short of 56";
        return false;
      }
      if (!source_->read(pos + 8, strh)) return false;
      haveStrh = true;
    } else if (id == code("strf")) {
      strf.resize(std::min<uint32_t>(size, 1024));
      if (!source_->read(pos + 8, strf)) return false;
      haveStrf = true;
    }
    const uint64_t next = pos + 8 + size + (size & 1);
    pos = next > end ? end : next;
  }
  if (!haveStrh || !haveStrf) {
    error = "stream " + std::to_string(streams_) + " lacks its " + (haveStrh ? "'strf'" : "'strh'");
    return false;
  }
  if (readLe32(strh) != code("vids") || haveVideo_) return true;
  if (strf.size() < 40) {
    error = "video format ('strf') of " + std::to_string(strf.size()) + " bytes, short of a BITMAPINFOHEADER";
    return false;
  }
  haveVideo_ = true;
  video_.number = streams_;
  video_.handler = readLe32(strh + 4);
  video_.scale = readLe32(strh + 20);
  video_.rate = readLe32(strh + 24);
  video_.length = readLe32(strh + 32);
  const std::byte* bi = strf.data();
  video_.width = static_cast<int32_t>(readLe32(bi + 4));
  video_.height = static_cast<int32_t>(readLe32(bi + 8));
  video_.bitCount = u16(bi + 14);
  video_.compression = readLe32(bi + 16);
  if (streams_ > 99) {
    error = "video stream number " + std::to_string(streams_) + " has no two-digit chunk id";
    return false;
  }
  return true;
}

}  // namespace kestrium::tools
