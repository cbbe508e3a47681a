#pragma once

#include <string>
#include <vector>

namespace kestrium::tools {

// kestrium-bench aac|mp3 --input FILE [--rate HZ] [--channels N] [--bitrate KBPS] [--loops N]
// Encodes raw interleaved 16-bit PCM (as `ffmpeg -f s16le` writes it) through
// the capture's encoder, in blocks of 200 ms as the recorder hands them over,
// taking every packet as the recorder does, and prints
// "x_realtime=.. bytes=.. audio_seconds=..": seconds of sound coded per second.
int audioBenchMain(const std::vector<std::string>& args);

}  // namespace kestrium::tools
