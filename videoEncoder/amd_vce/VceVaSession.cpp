#include "videoEncoder/amd_vce/VceVaSession.h"

#include <algorithm>
#include <cstring>

#include "platform/RenderNode.h"
#include "server/Log.h"
#include "videoEncoder/H264Bitstream.h"

namespace kestrium {

namespace {

constexpr VAProfile kH264Profiles[] = {VAProfileH264ConstrainedBaseline, VAProfileH264Main, VAProfileH264High};

constexpr uint8_t kSliceP = 0;
constexpr uint8_t kSliceI = 2;

void invalidate(VAPictureH264& picture) {
  picture.picture_id = VA_INVALID_SURFACE;
  picture.flags = VA_PICTURE_H264_INVALID;
}

}  // namespace

bool openAmdEncoderDisplay(const VaLibrary& va, VaDisplay& display, int* amdDisplays, int* encoders) {
  bool found = false;
  for (const std::string& node : platform::renderNodePaths()) {
    VaDisplay candidate;
    if (!candidate.open(va, node) || candidate.vendor().find("AMD") == std::string::npos) continue;
    if (amdDisplays != nullptr) ++*amdDisplays;
    if (std::none_of(std::begin(kH264Profiles), std::end(kH264Profiles),
                     [&](VAProfile p) { return candidate.encodes(p); })) {
      continue;
    }
    if (encoders != nullptr) ++*encoders;
    if (!found) found = display.open(va, node);
  }
  return found;
}

VceVaSession::~VceVaSession() { release(); }

bool VceVaSession::check(VAStatus status, const char* call) {
  if (status == VA_STATUS_SUCCESS) return true;
  logLine(u"[Error]   *** AMD_VCE *** %S failed: %S (%d)\n", call, va_.errorText(status), status);
  return false;
}

bool VceVaSession::open(const H264Settings& settings, std::vector<std::byte>& headers) {
  headers.clear();  // the driver tells them with the first frame
  if (setUp(settings)) return true;
  logLine(u"[Error]   *** AMD_VCE *** Cannot initialize AMD VCE Encoder\n");
  release();
  return false;
}

bool VceVaSession::setUp(const H264Settings& settings) {
  if (!va_.load(u"AMD_VCE") || !openAmdEncoderDisplay(va_, display_)) return false;
  width_ = (settings.width + 1) & ~1;
  height_ = (settings.height + 1) & ~1;
  VceConfig config = VceConfig::forCapture(settings);
  VADisplay d = display_.handle();
  // A GPU without the asked profile codes the capture in the nearest it has.
  setup_ = vceVaSetup(config, width_, height_, 1);
  if (!display_.encodes(setup_.profile)) {
    static constexpr std::pair<VAProfile, int32_t> kNearest[] = {
        {VAProfileH264Main, 77}, {VAProfileH264High, 100}, {VAProfileH264ConstrainedBaseline, 66}};
    for (const auto& [profile, idc] : kNearest) {
      if (!display_.encodes(profile)) continue;
      logLine(u"[Warning] *** AMD_VCE *** The GPU codes no H.264 profile %d; profile %d instead\n", config["profile"],
              idc);
      config.set("profile", idc);
      setup_.profile = profile;
      break;
    }
  }

  VAConfigAttrib attributes[] = {{VAConfigAttribRTFormat, 0}, {VAConfigAttribRateControl, 0},
                                 {VAConfigAttribEncQualityRange, 0}};
  if (!check(va_.GetConfigAttributes(d, setup_.profile, VAEntrypointEncSlice, attributes, 3), "vaGetConfigAttributes")) {
    return false;
  }
  const uint32_t qualityRange = attributes[2].value != VA_ATTRIB_NOT_SUPPORTED ? attributes[2].value : 1;
  setup_ = vceVaSetup(config, width_, height_, qualityRange);
  if ((attributes[0].value & VA_RT_FORMAT_YUV420) == 0 || attributes[1].value == VA_ATTRIB_NOT_SUPPORTED ||
      (attributes[1].value & setup_.rateControl) == 0) {
    logLine(u"[Error]   *** AMD_VCE *** The encoder takes no 4:2:0 pictures or not this rate control (%u)\n",
            setup_.rateControl);
    return false;
  }
  VAConfigAttrib wanted[] = {{VAConfigAttribRTFormat, VA_RT_FORMAT_YUV420},
                             {VAConfigAttribRateControl, setup_.rateControl}};
  if (!check(va_.CreateConfig(d, setup_.profile, VAEntrypointEncSlice, wanted, 2, &config_), "vaCreateConfig")) {
    config_ = VA_INVALID_ID;
    return false;
  }
  if (!check(va_.CreateSurfaces(d, VA_RT_FORMAT_YUV420, static_cast<unsigned>(setup_.codedWidth),
                                static_cast<unsigned>(setup_.codedHeight), surfaces_.data(),
                                static_cast<unsigned>(surfaces_.size()), nullptr, 0),
             "vaCreateSurfaces")) {
    return false;
  }
  surfacesMade_ = true;
  if (!check(va_.CreateContext(d, config_, setup_.codedWidth, setup_.codedHeight, VA_PROGRESSIVE, surfaces_.data(),
                               static_cast<int>(surfaces_.size()), &context_),
             "vaCreateContext")) {
    context_ = VA_INVALID_ID;
    return false;
  }
  // Room for a frame that came out larger than its picture: 3 bytes a pixel.
  const auto codedBytes = static_cast<unsigned>(setup_.codedWidth * setup_.codedHeight * 3);
  if (!check(va_.CreateBuffer(d, context_, VAEncCodedBufferType, codedBytes, 1, nullptr, &coded_), "vaCreateBuffer")) {
    coded_ = VA_INVALID_ID;
    return false;
  }
  frame_.reserve(codedBytes);
  return true;
}

void VceVaSession::release() {
  if (!display_.isOpen()) return;
  VADisplay d = display_.handle();
  destroyParameters();
  if (coded_ != VA_INVALID_ID) check(va_.DestroyBuffer(d, coded_), "vaDestroyBuffer");
  if (context_ != VA_INVALID_ID) check(va_.DestroyContext(d, context_), "vaDestroyContext");
  if (surfacesMade_) {
    check(va_.DestroySurfaces(d, surfaces_.data(), static_cast<int>(surfaces_.size())), "vaDestroySurfaces");
  }
  if (config_ != VA_INVALID_ID) check(va_.DestroyConfig(d, config_), "vaDestroyConfig");
  coded_ = context_ = config_ = VA_INVALID_ID;
  surfacesMade_ = false;
  display_.close();
}

bool VceVaSession::upload(VASurfaceID surface, const Nv12Picture& picture) {
  VADisplay d = display_.handle();
  VAImage image{};
  if (!check(va_.DeriveImage(d, surface, &image), "vaDeriveImage")) return false;
  void* mapped = nullptr;
  bool ok = true;
  if (image.format.fourcc != VA_FOURCC_NV12 || image.width < width_ || image.height < height_) {
    logLine(u"[Error]   *** AMD_VCE *** The GPU's surface is no %dx%d NV12 picture (%ux%u, fourcc %08X)\n", width_,
            height_, image.width, image.height, image.format.fourcc);
    ok = false;
  }
  ok = ok && check(va_.MapBuffer(d, image.buf, &mapped), "vaMapBuffer");
  if (ok) {
    auto* base = static_cast<uint8_t*>(mapped);
    // The picture's rows at the image's own pitch and offsets.
    for (int32_t y = 0; y < height_; ++y) {
      std::memcpy(base + image.offsets[0] + size_t{image.pitches[0]} * y, picture.luma + y * picture.lumaStep,
                  static_cast<size_t>(width_));
    }
    for (int32_t y = 0; y < height_ / 2; ++y) {
      std::memcpy(base + image.offsets[1] + size_t{image.pitches[1]} * y, picture.chroma + y * picture.chromaStep,
                  static_cast<size_t>(width_));
    }
    ok = check(va_.UnmapBuffer(d, image.buf), "vaUnmapBuffer");
  }
  return check(va_.DestroyImage(d, image.image_id), "vaDestroyImage") && ok;
}

bool VceVaSession::addBuffer(VABufferType type, const void* data, size_t size) {
  VABufferID buffer = VA_INVALID_ID;
  if (!check(va_.CreateBuffer(display_.handle(), context_, type, static_cast<unsigned>(size), 1,
                              const_cast<void*>(data), &buffer),
             "vaCreateBuffer")) {
    return false;
  }
  parameters_.push_back(buffer);
  return true;
}

template <class Misc>
bool VceVaSession::addMisc(VAEncMiscParameterType type, const Misc& misc) {
  std::vector<std::byte> bytes(sizeof(VAEncMiscParameterBuffer) + sizeof misc);
  VAEncMiscParameterBuffer header{};
  header.type = type;
  std::memcpy(bytes.data(), &header, sizeof header);
  std::memcpy(bytes.data() + sizeof(VAEncMiscParameterBuffer), &misc, sizeof misc);
  return addBuffer(VAEncMiscParameterBufferType, bytes.data(), bytes.size());
}

void VceVaSession::destroyParameters() {
  for (VABufferID buffer : parameters_) check(va_.DestroyBuffer(display_.handle(), buffer), "vaDestroyBuffer");
  parameters_.clear();
}

bool VceVaSession::renderParameters(bool idr) {
  const VASurfaceID current = surfaces_[kInputSurfaces + (reference_ ^ 1)];
  const VASurfaceID previous = surfaces_[kInputSurfaces + reference_];
  const uint32_t maxFrameNum = 1u << (setup_.sequence.seq_fields.bits.log2_max_frame_num_minus4 + 4);
  const uint32_t maxPocLsb = 1u << (setup_.sequence.seq_fields.bits.log2_max_pic_order_cnt_lsb_minus4 + 4);
  const uint32_t frameNum = sinceIdr_ % maxFrameNum;

  if (idr) {
    if (!addBuffer(VAEncSequenceParameterBufferType, &setup_.sequence, sizeof setup_.sequence)) return false;
    if (setup_.rateControl != VA_RC_CQP && !addMisc(VAEncMiscParameterTypeRateControl, setup_.rate)) return false;
    if (!addMisc(VAEncMiscParameterTypeFrameRate, setup_.frameRate) ||
        !addMisc(VAEncMiscParameterTypeHRD, setup_.hrd) ||
        !addMisc(VAEncMiscParameterTypeQualityLevel, setup_.quality)) {
      return false;
    }
  }

  VAEncPictureParameterBufferH264 p{};
  p.CurrPic.picture_id = current;
  p.CurrPic.frame_idx = frameNum;
  p.CurrPic.TopFieldOrderCnt = static_cast<int32_t>(sinceIdr_ * 2);
  p.CurrPic.BottomFieldOrderCnt = p.CurrPic.TopFieldOrderCnt;
  for (VAPictureH264& r : p.ReferenceFrames) invalidate(r);
  if (!idr) {
    p.ReferenceFrames[0].picture_id = previous;
    p.ReferenceFrames[0].frame_idx = (frameNum + maxFrameNum - 1) % maxFrameNum;
    p.ReferenceFrames[0].flags = VA_PICTURE_H264_SHORT_TERM_REFERENCE;
    p.ReferenceFrames[0].TopFieldOrderCnt = static_cast<int32_t>((sinceIdr_ - 1) * 2);
    p.ReferenceFrames[0].BottomFieldOrderCnt = p.ReferenceFrames[0].TopFieldOrderCnt;
  }
  p.coded_buf = coded_;
  p.frame_num = static_cast<uint16_t>(frameNum);
  p.pic_init_qp = static_cast<uint8_t>(setup_.initialQp);
  p.pic_fields.bits.idr_pic_flag = idr ? 1 : 0;
  p.pic_fields.bits.reference_pic_flag = 1;
  p.pic_fields.bits.entropy_coding_mode_flag = setup_.cabac ? 1 : 0;
  p.pic_fields.bits.transform_8x8_mode_flag = setup_.transform8x8 ? 1 : 0;
  p.pic_fields.bits.deblocking_filter_control_present_flag = 1;
  if (!addBuffer(VAEncPictureParameterBufferType, &p, sizeof p)) return false;

  VAEncSliceParameterBufferH264 s{};
  s.macroblock_address = 0;
  s.num_macroblocks = static_cast<uint32_t>(setup_.sequence.picture_width_in_mbs) *
                      setup_.sequence.picture_height_in_mbs;
  s.slice_type = idr ? kSliceI : kSliceP;
  s.idr_pic_id = idrId_;
  s.pic_order_cnt_lsb = static_cast<uint16_t>((sinceIdr_ * 2) % maxPocLsb);
  for (VAPictureH264& r : s.RefPicList0) invalidate(r);
  for (VAPictureH264& r : s.RefPicList1) invalidate(r);
  if (!idr) s.RefPicList0[0] = p.ReferenceFrames[0];
  s.cabac_init_idc = static_cast<uint8_t>(setup_.cabacInitIdc);
  s.disable_deblocking_filter_idc = static_cast<uint8_t>(setup_.deblockingIdc);
  s.slice_alpha_c0_offset_div2 = static_cast<int8_t>(setup_.alphaOffset);
  s.slice_beta_offset_div2 = static_cast<int8_t>(setup_.betaOffset);
  return addBuffer(VAEncSliceParameterBufferType, &s, sizeof s);
}

bool VceVaSession::takeCoded(uint32_t position, CodedFrameSink& sink) {
  VADisplay d = display_.handle();
  void* mapped = nullptr;
  if (!check(va_.MapBuffer(d, coded_, &mapped), "vaMapBuffer")) return false;
  frame_.clear();
  bool overflow = false;
  for (auto* segment = static_cast<VACodedBufferSegment*>(mapped); segment != nullptr;
       segment = static_cast<VACodedBufferSegment*>(segment->next)) {
    const auto* bytes = static_cast<const std::byte*>(segment->buf);
    if (bytes != nullptr) frame_.insert(frame_.end(), bytes, bytes + segment->size);
    overflow = overflow || (segment->status & VA_CODED_BUF_STATUS_SLICE_OVERFLOW_MASK) != 0;
  }
  check(va_.UnmapBuffer(d, coded_), "vaUnmapBuffer");
  if (overflow) {
    logLine(u"[Error]   *** AMD_VCE *** The frame at %u ms did not fit the coded buffer; it is lost\n", position);
    return false;
  }
  // A frame is a key frame when it holds an IDR slice, whatever was asked.
  bool key = false;
  AnnexBReader reader(frame_);
  for (std::span<const std::byte> unit; reader.next(unit);) key = key || nalType(unit) == kNalTypeIdr;
  if (!frame_.empty()) sink.deliver(frame_, position, key);
  return true;
}

bool VceVaSession::encode(const Nv12Picture& picture, uint32_t position, CodedFrameSink& sink) {
  VADisplay d = display_.handle();
  const VASurfaceID source = surfaces_[frames_++ % kInputSurfaces];
  const bool idr = forceIdr_ || sinceIdr_ >= setup_.sequence.intra_idr_period;
  if (idr) sinceIdr_ = 0;
  bool ok = upload(source, picture) && renderParameters(idr);
  if (ok) {
    ok = check(va_.BeginPicture(d, context_, source), "vaBeginPicture");
    if (ok) {
      ok = check(va_.RenderPicture(d, context_, parameters_.data(), static_cast<int>(parameters_.size())),
                 "vaRenderPicture");
      // Begun is ended, even after a refused render, so the context takes the next.
      ok = check(va_.EndPicture(d, context_), "vaEndPicture") && ok;
    }
  }
  destroyParameters();
  ok = ok && check(va_.SyncSurface(d, source), "vaSyncSurface") && takeCoded(position, sink);
  if (!ok) {
    // This frame is lost and its picture is no reference: start afresh. A GPU
    // that refuses frame after frame has stopped coding.
    forceIdr_ = true;
    if (++lostInARow_ < kMostLostInARow) return true;
    logLine(u"[Error]   *** AMD_VCE *** The GPU refused %u frames in a row\n", lostInARow_);
    return false;
  }
  lostInARow_ = 0;
  if (idr) ++idrId_;
  forceIdr_ = false;
  ++sinceIdr_;
  reference_ ^= 1;
  return true;
}

}  // namespace kestrium
