// kestrium-tmb2: the decoder and checker of TMB2 recordings, which no player
// knows.
//
//   kestrium-tmb2 decode IN.avi -o OUT.y4m [--planes]
//   kestrium-tmb2 verify IN.avi
//
// Exit status: 0 done, 1 the file is damaged or cannot be read or written,
// 2 wrong usage.

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "codecs/Tmb2.h"
#include "tools/Tmb2Recording.h"

using namespace kestrium;
using namespace kestrium::tools;

namespace {

constexpr int kOk = 0;
constexpr int kDamaged = 1;
constexpr int kUsage = 2;
constexpr size_t kErrorsShown = 20;

int usage() {
  std::cerr << "usage: kestrium-tmb2 decode IN.avi -o OUT.y4m [--planes]\n"
               "       kestrium-tmb2 verify IN.avi\n"
               "\n"
               "decode  writes the recording as y4m video (BT.601, limited range, 4:2:0,\n"
               "        upright), which players and ffmpeg take as it is. A frame the\n"
               "        recorder dropped repeats the frame before it.\n"
               "        --planes writes the stream's own planes instead, untouched, for exact\n"
               "        checks: per frame the luma plane (W x H bytes) and the two chroma planes\n"
               "        ((W/2) x (H/2) bytes each), rows as stored (bottom-up), no header.\n"
               "verify  decodes every frame and reports each damaged one.\n";
  return kUsage;
}

bool openRecording(const std::string& in, FileSource& file, Tmb2Recording& recording) {
  if (!file.open(in)) {
    std::cerr << in << ": cannot open the file\n";
    return false;
  }
  std::string error;
  if (!recording.open(file, error)) {
    std::cerr << in << ": " << error << "\n";
    return false;
  }
  return true;
}

int decode(const std::string& in, const std::string& out, bool planesOnly) {
  FileSource file;
  Tmb2Recording recording;
  if (!openRecording(in, file, recording)) return kDamaged;
  const uint32_t w = recording.width(), h = recording.height();
  if (!planesOnly && (w < 2 || h < 2)) {
    std::cerr << in << ": a picture of " << w << "x" << h << " has no 2 x 2 block to show; use --planes\n";
    return kDamaged;
  }
  std::ofstream o(out, std::ios::binary | std::ios::trunc);
  if (!o) {
    std::cerr << out << ": cannot create the file\n";
    return kDamaged;
  }
  const AviVideoStream& v = recording.avi().video();
  const uint32_t ew = w / 2 * 2, eh = h / 2 * 2;
  if (!planesOnly) o << y4mHeader(ew, eh, v.rate, v.scale);
  const tmb2::FrameLayout layout = tmb2::frameLayout(w, h);
  std::vector<uint8_t> planes;
  blackPlanes(w, h, planes);
  std::vector<uint8_t> picture(size_t{ew} * eh * 3 / 2);
  size_t dropped = 0;
  for (size_t i = 0; i < recording.frameCount(); ++i) {
    bool empty = false;
    std::string error;
    if (!recording.decodeFrame(i, planes, empty, error)) {
      std::cerr << in << ": frame " << i << ": " << error << "\n";
      return kDamaged;
    }
    dropped += empty;
    if (planesOnly) {
      for (const tmb2::PlaneLayout& p : layout.planes) {
        o.write(reinterpret_cast<const char*>(planes.data() + p.offset), static_cast<std::streamsize>(p.width * p.height));
      }
    } else {
      planesToStandardYuv(planes.data(), w, h, picture.data());
      o << "FRAME\n";
      o.write(reinterpret_cast<const char*>(picture.data()), static_cast<std::streamsize>(picture.size()));
    }
  }
  o.flush();
  if (!o) {
    std::cerr << out << ": cannot write the file\n";
    return kDamaged;
  }
  std::cerr << in << ": " << recording.frameCount() << " frames decoded";
  if (dropped != 0) std::cerr << " (" << dropped << " dropped by the recorder, shown as the frame before)";
  std::cerr << "\n";
  return kOk;
}

int verify(const std::string& in) {
  FileSource file;
  Tmb2Recording recording;
  if (!openRecording(in, file, recording)) return kDamaged;
  const AviVideoStream& v = recording.avi().video();
  std::cout << in << ": TMB2 " << recording.width() << "x" << recording.height() << ", " << recording.frameCount()
            << " frames, " << recording.avi().riffCount() << " RIFF segment" << (recording.avi().riffCount() > 1 ? "s" : "")
            << ", " << v.rate << "/" << v.scale << " frames per second\n";
  std::vector<uint8_t> planes;
  size_t damaged = 0, dropped = 0;
  for (size_t i = 0; i < recording.frameCount(); ++i) {
    bool empty = false;
    std::string error;
    if (!recording.decodeFrame(i, planes, empty, error)) {
      if (++damaged <= kErrorsShown) std::cout << "frame " << i << ": " << error << "\n";
      continue;
    }
    dropped += empty;
  }
  if (damaged > kErrorsShown) std::cout << "... and " << damaged - kErrorsShown << " more damaged frames\n";
  bool lengthMatches = v.length == recording.frameCount() || (v.length == 1 && recording.frameCount() == 0);
  if (!lengthMatches) {
    std::cout << "the stream header says " << v.length << " frames, the file holds " << recording.frameCount() << "\n";
  }
  if (dropped != 0) std::cout << dropped << " frames dropped by the recorder (empty chunks)\n";
  if (damaged != 0 || !lengthMatches) {
    std::cout << "DAMAGED: " << damaged << " of " << recording.frameCount() << " frames cannot be decoded\n";
    return kDamaged;
  }
  std::cout << "OK: every frame decodes\n";
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return usage();
  const std::string command = args[0];
  std::string in, out;
  bool planesOnly = false;
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "-o" && i + 1 < args.size()) {
      out = args[++i];
    } else if (args[i] == "--planes") {
      planesOnly = true;
    } else if (!args[i].empty() && args[i][0] == '-') {
      std::cerr << "unknown option " << args[i] << "\n";
      return usage();
    } else if (in.empty()) {
      in = args[i];
    } else {
      return usage();
    }
  }
  if (in.empty()) return usage();
  if (command == "decode") {
    if (out.empty()) return usage();
    return decode(in, out, planesOnly);
  }
  if (command == "verify") {
    if (!out.empty() || planesOnly) return usage();
    return verify(in);
  }
  return usage();
}
