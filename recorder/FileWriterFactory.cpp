#include "fileOutput/FileWriterAVI.h"
#include "fileOutput/FileWriterMP4.h"
#include "recorder/IFileWriter.h"
#include "server/Log.h"

namespace kestrium {

std::unique_ptr<IFileWriter> IFileWriter::Create(bool sideTracks, float prerecordLimit, std::u16string_view container,
                                                 const std::filesystem::path& destination) {
  if (container == u"AVI") return std::make_unique<FileWriterAVI>(sideTracks, prerecordLimit, destination);
  if (container == u"MP4") return std::make_unique<FileWriterMP4>(sideTracks, prerecordLimit, destination);
  logLine(u"[Error]   Unknown container %s\n", container);
  return nullptr;
}

}  // namespace kestrium
