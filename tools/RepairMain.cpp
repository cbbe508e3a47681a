// kestrium-repair: makes the recording of a server that was killed playable.
//
//   kestrium-repair FILE [-o OUT | --in-place]
//
// Writes NAME.repaired.EXT beside FILE (or OUT); --in-place puts the repaired
// file in FILE's place (an MP4's journal goes then too). Exit status: 0
// repaired, 1 the file cannot be repaired or written, 2 wrong usage.

#include <filesystem>
#include <iostream>
#include <string>

#include "fileOutput/Mp4Journal.h"
#include "tools/Repair.h"

using namespace kestrium;

namespace {

int usage() {
  std::cerr << "usage: kestrium-repair FILE [-o OUT | --in-place]\n"
               "\n"
               "Rebuilds the index, sizes and counts of an AVI or MP4 recording whose\n"
               "server was killed, keeping every whole frame and audio chunk, and writes\n"
               "it to NAME.repaired.EXT beside FILE, to OUT, or (--in-place) over FILE.\n"
               "An MP4 needs the journal its server kept beside it (FILE.journal).\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::filesystem::path input, output;
  bool inPlace = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-o" && i + 1 < argc) {
      output = argv[++i];
    } else if (arg == "--in-place") {
      inPlace = true;
    } else if (!arg.empty() && arg[0] != '-' && input.empty()) {
      input = arg;
    } else {
      return usage();
    }
  }
  if (input.empty() || (inPlace && !output.empty())) return usage();
  if (output.empty()) output = tools::repairedPath(input);
  if (inPlace) output += ".part";

  const tools::RepairReport report = tools::repairRecording(input, output);
  if (!report.ok) {
    std::cerr << "kestrium-repair: " << input.string() << ": " << report.error << "\n";
    std::error_code ignored;
    std::filesystem::remove(output, ignored);
    return 1;
  }
  if (inPlace) {
    std::error_code error;
    std::filesystem::rename(output, input, error);
    if (error) {
      std::cerr << "kestrium-repair: cannot put the repaired file in place of " << input.string() << ": "
                << error.message() << " (it is in " << output.string() << ")\n";
      return 1;
    }
    std::filesystem::path journal = input;
    journal += mp4journal::kSuffix;
    std::filesystem::remove(journal, error);
  }
  std::cout << (inPlace ? input : output).string() << ": " << report.videoFrames << " video frames, "
            << report.audioChunks << " audio chunks; " << report.lostBytes << " bytes at the end held no whole frame\n";
  return 0;
}
