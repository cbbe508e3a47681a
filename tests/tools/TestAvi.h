#pragma once

// A small AVI writer of the tests' own, for files the product's muxer does not
// make: streams in another order, 'rec ' lists, JUNK and index chunks in
// between, small 'AVIX' segments, and files damaged on purpose.

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

namespace kestrium::test {

class TestAvi {
 public:
  struct Options {
    int32_t width = 64;
    int32_t height = 48;
    uint32_t compression = 0x32424D54;  // TMB2
    uint32_t rate = 30;
    uint32_t scale = 1;
    bool audioFirst = false;  // the video then is stream 1: chunks "01dc"
    bool withAudio = false;
    size_t formatSize = 40;  // bytes of the video 'strf'
  };

  explicit TestAvi(Options o) : o_(o) {
    begin("RIFF", "AVI ");
    begin("LIST", "hdrl");
    chunk("avih", std::vector<uint8_t>(56, 0));
    if (o.audioFirst) audioList();
    begin("LIST", "strl");
    std::vector<uint8_t> strh(56, 0);
    std::memcpy(strh.data(), "vids", 4);
    put32(strh, 20, o.scale);
    put32(strh, 24, o.rate);
    lengthAt_ = bytes_.size() + 8 + 32;  // dwLength, patched at the end
    chunk("strh", strh);
    std::vector<uint8_t> bi(40, 0);
    put32(bi, 0, 40);
    put32(bi, 4, static_cast<uint32_t>(o.width));
    put32(bi, 8, static_cast<uint32_t>(o.height));
    bi[12] = 1;
    bi[14] = 16;
    put32(bi, 16, o.compression);
    bi.resize(o.formatSize);
    chunk("strf", bi);
    chunk("JUNK", std::vector<uint8_t>(24, 0));
    end();
    if (o.withAudio && !o.audioFirst) audioList();
    end();
    chunk("JUNK", std::vector<uint8_t>(100, 0));
    begin("LIST", "movi");
  }

  void frame(std::span<const uint8_t> data, const char* id = nullptr) {
    chunk(id != nullptr ? id : (o_.audioFirst ? "01dc" : "00dc"), data);
    ++frames_;
  }
  void audio(size_t size) { chunk(o_.audioFirst ? "00wb" : "01wb", std::vector<uint8_t>(size, 0x55)); }
  void junk(size_t size) { chunk("JUNK", std::vector<uint8_t>(size, 0)); }
  void beginRec() { begin("LIST", "rec "); }
  void endRec() { end(); }
  // Closes this segment's movi (and, the first time, adds an idx1) and RIFF, and
  // opens an 'AVIX' RIFF with its own movi.
  void newSegment() {
    end();  // movi
    if (segments_ == 0) chunk("idx1", std::vector<uint8_t>(16, 0));
    end();  // RIFF
    ++segments_;
    begin("RIFF", "AVIX");
    begin("LIST", "movi");
  }
  std::vector<uint8_t> finish() {
    if (segments_ > 0) chunk("ix00", std::vector<uint8_t>(32, 0));
    end();
    if (segments_ == 0) chunk("idx1", std::vector<uint8_t>(16, 0));
    end();
    put32(bytes_, lengthAt_, frames_);
    return bytes_;
  }

  static void put32(std::vector<uint8_t>& b, size_t at, uint32_t v) { std::memcpy(&b[at], &v, 4); }

 private:
  void audioList() {
    begin("LIST", "strl");
    std::vector<uint8_t> strh(56, 0);
    std::memcpy(strh.data(), "auds", 4);
    chunk("strh", strh);
    chunk("strf", std::vector<uint8_t>(18, 1));
    end();
  }
  void fourcc(const char* c) { bytes_.insert(bytes_.end(), c, c + 4); }
  void begin(const char* id, const char* type) {
    fourcc(id);
    open_.push_back(bytes_.size());
    bytes_.insert(bytes_.end(), 4, uint8_t{0});
    fourcc(type);
  }
  void end() {
    const size_t at = open_.back();
    open_.pop_back();
    put32(bytes_, at, static_cast<uint32_t>(bytes_.size() - at - 4));
  }
  void chunk(const char* id, std::span<const uint8_t> data) {
    fourcc(id);
    const size_t at = bytes_.size();
    bytes_.insert(bytes_.end(), 4, uint8_t{0});
    put32(bytes_, at, static_cast<uint32_t>(data.size()));
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    if (data.size() % 2 != 0) bytes_.push_back(0);
  }

  Options o_;
  std::vector<uint8_t> bytes_;
  std::vector<size_t> open_;
  size_t lengthAt_ = 0;
  uint32_t frames_ = 0;
  int segments_ = 0;
};

}  // namespace kestrium::test
