#include "videoEncoder/X264Session.h"

#include <x264.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "server/Log.h"

namespace kestrium {

namespace {

// x264's own complaints reach the server's log, one line each.
void logFromX264(void* /*context*/, int level, const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  std::string_view line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (level <= X264_LOG_ERROR) {
    logLine(u"[Error]   *** x264 *** %S\n", line);
  } else {
    logLine(u"[Warning] *** x264 *** %S\n", line);
  }
}

// The picture's position rides through the encoder with the picture itself.
void* carry(uint32_t position) { return reinterpret_cast<void*>(static_cast<uintptr_t>(position)); }
uint32_t carried(const x264_picture_t& picture) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(picture.opaque));
}

// A call of the encoder gives at most one frame, its units one after the other.
void deliver(int size, int count, const x264_nal_t* nals, const x264_picture_t& out, CodedFrameSink& sink) {
  if (size <= 0 || count <= 0) return;
  sink.deliver({reinterpret_cast<const std::byte*>(nals[0].p_payload), static_cast<size_t>(size)}, carried(out),
               out.b_keyframe != 0);
}

}  // namespace

void X264Session::Closer::operator()(x264_t* encoder) const { x264_encoder_close(encoder); }

X264Session::X264Session() = default;
X264Session::~X264Session() = default;

const char* X264Session::presetFor(uint32_t targetUsage) {
  static constexpr const char* kPresets[] = {"veryfast", "fast",      "faster",    "veryfast",
                                             "veryfast", "superfast", "superfast", "ultrafast"};
  return targetUsage < std::size(kPresets) ? kPresets[targetUsage] : kPresets[0];
}

const char* X264Session::profileName(int32_t profile) {
  switch (profile) {
    case 0: return "baseline";
    case 1: return "main";
    case 2: return "high";
    default: return nullptr;
  }
}

bool X264Session::open(const H264Settings& s, std::vector<std::byte>& headers) {
  x264_param_t p;
  if (x264_param_default_preset(&p, presetFor(s.targetUsage), s.lowLatency ? "zerolatency" : nullptr) < 0) {
    logLine(u"[Error]   *** x264 *** Preset %S is unknown to this libx264\n", presetFor(s.targetUsage));
    return false;
  }
  p.pf_log = logFromX264;
  p.i_log_level = X264_LOG_WARNING;
  p.i_threads = std::max(s.threads, 1);
  // 4:2:0 wants even sizes: the picture comes padded by its last column and row.
  p.i_width = (s.width + 1) & ~1;
  p.i_height = (s.height + 1) & ~1;
  p.i_csp = X264_CSP_NV12;
  // Our conversion gives full-range luma and chroma with the luma weights of
  // BT.601: say so, or players would stretch the range a second time.
  p.vui.b_fullrange = 1;
  p.vui.i_colmatrix = 6;  // SMPTE 170M
  // Rate control by the nominal rate; the positions of the frames travel beside
  // the pictures (with b_vfr_input set every frame would come out a frame late).
  p.b_vfr_input = 0;
  p.i_fps_num = s.rateNum;
  p.i_fps_den = s.rateDen;
  p.i_timebase_num = 1;
  p.i_timebase_den = 1000;
  // An IDR frame every second and at no other place, and every GOP closed, so
  // that a recording can be cut at any key frame; no B-frames, since our MP4 and
  // FLV writers carry no composition offsets.
  p.i_keyint_max = static_cast<int>(s.keyInterval);
  p.i_scenecut_threshold = 0;
  p.b_intra_refresh = 0;
  p.b_open_gop = 0;
  p.i_bframe = 0;
  p.rc.i_rc_method = X264_RC_ABR;
  p.rc.i_bitrate = static_cast<int>(s.bitrateKbps);
  p.rc.i_vbv_max_bitrate = static_cast<int>(s.bitrateKbps);
  p.rc.i_vbv_buffer_size = static_cast<int>(s.bitrateKbps);
  // The rate and buffer stand in the SPS, for whoever receives the stream.
  p.i_nal_hrd = X264_NAL_HRD_VBR;
  // Parameter sets once, in the headers: the containers and the broadcast carry
  // them themselves.
  p.b_repeat_headers = 0;
  p.b_annexb = 1;
  p.b_aud = 0;
  // The profile asked for is the profile the stream has: the fast presets leave
  // out what makes Main (CABAC) and High (the 8x8 transform), so x264 would
  // quietly call their streams Baseline.
  if (s.profile >= 1) p.b_cabac = 1;
  if (s.profile == 2) p.analyse.b_transform_8x8 = 1;
  if (const char* profile = profileName(s.profile); profile != nullptr && x264_param_apply_profile(&p, profile) < 0) {
    logLine(u"[Error]   *** x264 *** Profile %S cannot be applied\n", profile);
    return false;
  }
  encoder_.reset(x264_encoder_open(&p));
  if (!encoder_) {
    logLine(u"[Error]   *** x264 *** Cannot open the encoder for %dx%d\n", s.width, s.height);
    return false;
  }
  x264_nal_t* nals = nullptr;
  int count = 0;
  const int size = x264_encoder_headers(encoder_.get(), &nals, &count);
  if (size <= 0 || count <= 0) {
    logLine(u"[Error]   *** x264 *** The encoder gave no headers\n");
    return false;
  }
  // The payloads of the units lie one after the other.
  const auto* first = reinterpret_cast<const std::byte*>(nals[0].p_payload);
  headers.assign(first, first + size);
  return true;
}

bool X264Session::encode(const Nv12Picture& picture, uint32_t position, CodedFrameSink& sink) {
  x264_picture_t in;
  x264_picture_init(&in);
  in.img.i_csp = X264_CSP_NV12;
  in.img.i_plane = 2;
  in.img.plane[0] = picture.luma;
  in.img.i_stride[0] = static_cast<int>(picture.lumaStep);
  in.img.plane[1] = picture.chroma;
  in.img.i_stride[1] = static_cast<int>(picture.chromaStep);
  in.i_pts = pictures_++;
  in.opaque = carry(position);
  x264_picture_t out;
  x264_nal_t* nals = nullptr;
  int count = 0;
  const int size = x264_encoder_encode(encoder_.get(), &nals, &count, &in, &out);
  if (size < 0) {
    logLine(u"[Error]   *** x264 *** Encoding the picture at %u failed (%d)\n", position, size);
    return false;
  }
  deliver(size, count, nals, out, sink);
  return true;
}

bool X264Session::drain(CodedFrameSink& sink) {
  if (!encoder_) return true;
  while (x264_encoder_delayed_frames(encoder_.get()) > 0) {
    x264_picture_t out;
    x264_nal_t* nals = nullptr;
    int count = 0;
    const int size = x264_encoder_encode(encoder_.get(), &nals, &count, nullptr, &out);
    if (size < 0) {
      logLine(u"[Error]   *** x264 *** Draining the encoder failed (%d)\n", size);
      return false;
    }
    deliver(size, count, nals, out, sink);
  }
  return true;
}

}  // namespace kestrium
