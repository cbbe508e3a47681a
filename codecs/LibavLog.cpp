#include "codecs/LibavLog.h"

extern "C" {
#include <libavutil/log.h>
}

#include <cstdarg>
#include <mutex>
#include <string>
#include <string_view>

#include "server/Log.h"

namespace kestrium {

namespace {

// "aac" gives "AAC", as the audio lines have always been headed.
std::string speaker(void* object) {
  std::string name = "LIBAV";
  if (object != nullptr) {
    const AVClass* avClass = *static_cast<const AVClass* const*>(object);
    if (avClass != nullptr && avClass->item_name != nullptr) {
      const char* item = avClass->item_name(object);
      if (item != nullptr && *item != '\0') name = item;
    }
  }
  for (char& c : name) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return name;
}

void logFromLibav(void* object, int level, const char* format, va_list args) {
  if (level > AV_LOG_WARNING) return;
  char text[512];
  int prefix = 0;
  av_log_format_line(nullptr, level, format, args, text, sizeof text, &prefix);
  std::string_view line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.empty()) return;
  if (level <= AV_LOG_ERROR) {
    logLine(u"[Error]   *** %S *** %S\n", speaker(object), line);
  } else {
    logLine(u"[Warning] *** %S *** %S\n", speaker(object), line);
  }
}

}  // namespace

void routeLibavLog() {
  static std::once_flag routed;
  std::call_once(routed, [] { av_log_set_callback(logFromLibav); });
}

}  // namespace kestrium
