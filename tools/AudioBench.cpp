#include "tools/AudioBench.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>

#include "audio/IAudioEncoder.h"

namespace kestrium::tools {

int audioBenchMain(const std::vector<std::string>& args) {
  const std::string& kernel = args.at(0);
  std::string input;
  int32_t rate = 48000, channels = 2, kbps = 160, loops = 1;
  for (size_t i = 1; i + 1 < args.size(); i += 2) {
    const std::string& a = args[i];
    const std::string& v = args[i + 1];
    if (a == "--input") {
      input = v;
    } else if (a == "--rate") {
      rate = std::atoi(v.c_str());
    } else if (a == "--channels") {
      channels = std::atoi(v.c_str());
    } else if (a == "--bitrate") {
      kbps = std::atoi(v.c_str());
    } else if (a == "--loops") {
      loops = std::atoi(v.c_str());
    } else {
      input.clear();
      break;
    }
  }
  if (input.empty() || args.size() % 2 == 0 || rate <= 0 || channels <= 0 || kbps <= 0 || loops <= 0) {
    std::cerr << "usage: kestrium-bench aac|mp3 --input FILE [--rate HZ] [--channels N] [--bitrate KBPS] [--loops N]\n";
    return 2;
  }
  std::ifstream in(input, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t frameBytes = size_t(channels) * 2;
  const size_t total = bytes.size() / frameBytes * frameBytes;
  if (total == 0) {
    std::cerr << input << ": no PCM frames\n";
    return 1;
  }
  std::u16string name = kernel == "aac" ? u"aac" : u"mp3";
  auto encoder = CreateAudioEncoder(name, rate, kbps * 1000, channels, channels == 1 ? 0x4 : 0x3);
  if (!encoder) {
    std::cerr << "this build has no audio encoders\n";
    return 1;
  }
  const size_t block = size_t(rate) / 5 * frameBytes;
  std::vector<std::byte> packet;
  uint64_t out = 0;
  uint32_t time = 0;
  const auto start = std::chrono::steady_clock::now();
  for (int32_t loop = 0; loop < loops; ++loop) {
    for (size_t at = 0; at < total; at += block) {
      const size_t n = std::min(block, total - at);
      encoder->Encode(bytes.data() + at, static_cast<uint32_t>(n), time);
      time += 200;
      while (encoder->GetPacket(packet, nullptr) > 0) out += packet.size();
    }
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double audio = double(total / frameBytes) * loops / rate;
  if (out == 0) {
    std::cerr << "kestrium-bench: the encoder made nothing (see the log for why)\n";
    return 1;
  }
  std::printf("x_realtime=%.1f bytes=%llu audio_seconds=%.2f\n", audio / seconds, static_cast<unsigned long long>(out),
              audio);
  return 0;
}

}  // namespace kestrium::tools
