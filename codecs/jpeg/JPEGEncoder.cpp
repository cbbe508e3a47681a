#include "codecs/jpeg/JPEGEncoder.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>

// jpeglib.h wants FILE and size_t declared before it.
#include <jpeglib.h>

namespace kestrium {

namespace {

// libjpeg reports errors by calling error_exit, which must not return: it jumps
// back to the engine call that started the work.
struct ErrorManager {
  jpeg_error_mgr pub;
  std::jmp_buf jump;
};

void onError(j_common_ptr cinfo) { std::longjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->jump, 1); }
void onMessage(j_common_ptr, int) {}
void onOutput(j_common_ptr) {}

// The JFIF conversion in 16-bit fixed point, as libjpeg computes it, so that a
// frame looks the same through either path.
constexpr int kScaleBits = 16;
constexpr int32_t kHalf = int32_t{1} << (kScaleBits - 1);
constexpr int32_t fix(double x) { return static_cast<int32_t>(x * (1L << kScaleBits) + 0.5); }
constexpr int32_t kChromaOffset = int32_t{128} << kScaleBits;

}  // namespace

struct CJPEGEncoder::State {
  jpeg_compress_struct cinfo{};
  ErrorManager errors{};
  jpeg_destination_mgr destination{};
  JOCTET output[kOutputBuffer];
  CBaseStreamOutput* sink = nullptr;
  int sinkResult = kOk;
  bool created = false;
  bool prepared = false;
  JpegSource source;
  int fullRange = 1;
  int sampling = kSampling444;
  int quality = 100;
  std::vector<JSAMPROW> sourceRows;
  // The raw path: one row of MCUs of each component, and their row pointers.
  std::vector<JSAMPLE> planes[3];
  std::vector<JSAMPROW> planeRows[3];
  std::vector<JSAMPLE> chromaFull[2];  // full-resolution chroma before 2x2 averaging
  int paddedWidth = 0;                 // the width in whole MCUs
};

namespace {

CJPEGEncoder::State& stateOf(j_compress_ptr cinfo) { return *static_cast<CJPEGEncoder::State*>(cinfo->client_data); }

void sendToSink(CJPEGEncoder::State& s, size_t count) {
  if (count == 0 || s.sinkResult != CJPEGEncoder::kOk) return;
  size_t written = 0;
  if (s.sink == nullptr || s.sink->Write(reinterpret_cast<const std::byte*>(s.output), count, &written) != 0 ||
      written != count) {
    s.sinkResult = CJPEGEncoder::kSinkShort;
  }
}

void initDestination(j_compress_ptr cinfo) {
  CJPEGEncoder::State& s = stateOf(cinfo);
  s.destination.next_output_byte = s.output;
  s.destination.free_in_buffer = CJPEGEncoder::kOutputBuffer;
}

boolean emptyOutputBuffer(j_compress_ptr cinfo) {
  CJPEGEncoder::State& s = stateOf(cinfo);
  sendToSink(s, CJPEGEncoder::kOutputBuffer);
  s.destination.next_output_byte = s.output;
  s.destination.free_in_buffer = CJPEGEncoder::kOutputBuffer;
  return TRUE;
}

void termDestination(j_compress_ptr cinfo) {
  CJPEGEncoder::State& s = stateOf(cinfo);
  sendToSink(s, CJPEGEncoder::kOutputBuffer - s.destination.free_in_buffer);
}

// One row of MCUs of the raw path: BGR to YCbCr, the luma squeezed to 16..235,
// edges repeated out to whole MCUs, chroma averaged 2x2 when subsampled.
void convertMcuRow(CJPEGEncoder::State& s, int firstLine, int lines) {
  const JpegSource& src = s.source;
  const int paddedWidth = s.paddedWidth;
  const bool subsampled = s.sampling == CJPEGEncoder::kSampling2x2;
  for (int l = 0; l < lines; ++l) {
    const int y = std::min(firstLine + l, src.height - 1);
    const auto* row = reinterpret_cast<const uint8_t*>(src.data + static_cast<ptrdiff_t>(y) * src.lineStep);
    JSAMPLE* luma = s.planeRows[0][l];
    JSAMPLE* cb = subsampled ? s.chromaFull[0].data() + static_cast<size_t>(l) * paddedWidth : s.planeRows[1][l];
    JSAMPLE* cr = subsampled ? s.chromaFull[1].data() + static_cast<size_t>(l) * paddedWidth : s.planeRows[2][l];
    for (int x = 0; x < paddedWidth; ++x) {
      const uint8_t* p = row + 3 * std::min(x, src.width - 1);
      const int32_t b = p[0], g = p[1], r = p[2];
      const int32_t yy = (fix(0.29900) * r + fix(0.58700) * g + fix(0.11400) * b + kHalf) >> kScaleBits;
      luma[x] = static_cast<JSAMPLE>(16 + yy * 219 / 255);
      cb[x] = static_cast<JSAMPLE>((-fix(0.16874) * r - fix(0.33126) * g + fix(0.5) * b + kChromaOffset + kHalf - 1) >>
                                   kScaleBits);
      cr[x] = static_cast<JSAMPLE>((fix(0.5) * r - fix(0.41869) * g - fix(0.08131) * b + kChromaOffset + kHalf - 1) >>
                                   kScaleBits);
    }
  }
  if (!subsampled) return;
  for (int c = 0; c < 2; ++c) {
    for (int l = 0; l < lines / 2; ++l) {
      const JSAMPLE* top = s.chromaFull[c].data() + static_cast<size_t>(2 * l) * paddedWidth;
      const JSAMPLE* bottom = top + paddedWidth;
      JSAMPLE* out = s.planeRows[c + 1][l];
      for (int x = 0; x < paddedWidth / 2; ++x) {
        // Alternating rounding, so that averaging has no bias.
        out[x] = static_cast<JSAMPLE>((top[2 * x] + top[2 * x + 1] + bottom[2 * x] + bottom[2 * x + 1] + 1 + (x & 1)) >> 2);
      }
    }
  }
}

}  // namespace

CJPEGEncoder::CJPEGEncoder() : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.cinfo.err = jpeg_std_error(&s.errors.pub);
  s.errors.pub.error_exit = onError;
  s.errors.pub.emit_message = onMessage;
  s.errors.pub.output_message = onOutput;
  if (setjmp(s.errors.jump) == 0) {
    jpeg_create_compress(&s.cinfo);
    s.created = true;
  }
  s.cinfo.client_data = &s;
  s.destination.init_destination = initDestination;
  s.destination.empty_output_buffer = emptyOutputBuffer;
  s.destination.term_destination = termDestination;
  s.cinfo.dest = &s.destination;
}

CJPEGEncoder::~CJPEGEncoder() {
  if (state_->created) jpeg_destroy_compress(&state_->cinfo);
}

int CJPEGEncoder::SetSource(const JpegSource& source, int fullRange) {
  if (source.data == nullptr || source.width <= 0 || source.height <= 0 || source.width > JPEG_MAX_DIMENSION ||
      source.height > JPEG_MAX_DIMENSION || source.channels != 3 || source.colorCode != 3 || source.bitsPerSample != 8 ||
      source.lineStep < source.width * 3) {
    return kBadParameter;
  }
  State& s = *state_;
  const bool sizeChanged = source.width != s.source.width || source.height != s.source.height;
  s.source = source;
  s.fullRange = fullRange;
  if (sizeChanged) s.prepared = false;
  s.cinfo.image_width = static_cast<JDIMENSION>(source.width);
  s.cinfo.image_height = static_cast<JDIMENSION>(source.height);
  for (int y = 0; y < static_cast<int>(s.sourceRows.size()) && y < source.height; ++y) {
    s.sourceRows[y] = const_cast<JSAMPLE*>(reinterpret_cast<const JSAMPLE*>(source.data + static_cast<ptrdiff_t>(y) * source.lineStep));
  }
  return kOk;
}

int CJPEGEncoder::SetParameters(int sampling, int quality) {
  State& s = *state_;
  if (!s.created || (sampling != kSampling444 && sampling != kSampling2x2) || quality < 1 || quality > 100) {
    return kBadParameter;
  }
  s.sampling = sampling;
  s.quality = quality;
  jpeg_compress_struct& c = s.cinfo;
  if (setjmp(s.errors.jump) != 0) return kLibraryFailed;
  c.input_components = 3;
  // With the full range, libjpeg-turbo converts (with its vector code); the
  // squeezed range needs a step between conversion and transform, so then the
  // engine converts itself and hands over the planes.
  c.in_color_space = s.fullRange != 0 ? JCS_EXT_BGR : JCS_YCbCr;
  jpeg_set_defaults(&c);
  jpeg_set_colorspace(&c, JCS_YCbCr);
  c.raw_data_in = s.fullRange != 0 ? FALSE : TRUE;
  c.write_JFIF_header = TRUE;
  c.JFIF_major_version = 1;
  c.JFIF_minor_version = 2;
  c.density_unit = 0;
  c.X_density = 1;
  c.Y_density = 1;
  c.restart_interval = 0;
  c.optimize_coding = FALSE;
  jpeg_set_quality(&c, quality, TRUE);
  for (int i = 0; i < 3; ++i) {
    c.comp_info[i].component_id = i;
    const int factor = (i == 0 && sampling == kSampling2x2) ? 2 : 1;
    c.comp_info[i].h_samp_factor = factor;
    c.comp_info[i].v_samp_factor = factor;
  }
  s.prepared = false;
  return kOk;
}

int CJPEGEncoder::Prepare(CBaseStreamOutput* sink) {
  State& s = *state_;
  if (sink == nullptr || s.source.data == nullptr) return kBadParameter;
  s.sink = sink;
  s.sourceRows.resize(static_cast<size_t>(s.source.height));
  SetSource(s.source, s.fullRange);
  const int mcu = s.sampling == kSampling2x2 ? 16 : 8;
  const size_t paddedWidth = (static_cast<size_t>(s.source.width) + mcu - 1) / mcu * mcu;
  s.paddedWidth = static_cast<int>(paddedWidth);
  const int chromaDivisor = s.sampling == kSampling2x2 ? 2 : 1;
  for (int c = 0; c < 3; ++c) {
    const size_t width = c == 0 ? paddedWidth : paddedWidth / chromaDivisor;
    const int lines = c == 0 ? mcu : mcu / chromaDivisor;
    s.planes[c].assign(width * static_cast<size_t>(lines), 0);
    s.planeRows[c].resize(static_cast<size_t>(lines));
    for (int l = 0; l < lines; ++l) s.planeRows[c][l] = s.planes[c].data() + static_cast<size_t>(l) * width;
  }
  for (auto& full : s.chromaFull) full.assign(s.sampling == kSampling2x2 ? paddedWidth * 16 : 0, 0);
  s.prepared = true;
  return kOk;
}

uint64_t CJPEGEncoder::MaxOutputSize(int width, int height, int sampling) {
  // SOI, JFIF, two quantisation tables, the frame, four Huffman tables, the scan
  // header and EOI come to about 620 bytes.
  constexpr uint64_t kMarkers = 2048;
  constexpr uint64_t kBytesPerSample = 2;
  if (width <= 0 || height <= 0) return kMarkers;
  const uint64_t mcu = sampling == kSampling2x2 ? 16 : 8;
  const uint64_t paddedWidth = (static_cast<uint64_t>(width) + mcu - 1) / mcu * mcu;
  const uint64_t paddedHeight = (static_cast<uint64_t>(height) + mcu - 1) / mcu * mcu;
  const uint64_t area = paddedWidth * paddedHeight;
  // Luma covers the padded area; each chroma plane all of it or a quarter.
  const uint64_t samples = sampling == kSampling2x2 ? area + area / 2 : 3 * area;
  return samples * kBytesPerSample + kMarkers;
}

int CJPEGEncoder::WriteHeader() {
  State& s = *state_;
  if (!s.prepared) return kBadParameter;
  s.sinkResult = kOk;
  if (setjmp(s.errors.jump) != 0) {
    jpeg_abort_compress(&s.cinfo);
    return kLibraryFailed;
  }
  jpeg_start_compress(&s.cinfo, TRUE);
  return kOk;
}

int CJPEGEncoder::WriteData() {
  State& s = *state_;
  if (!s.prepared || s.cinfo.global_state == 0) return kBadParameter;
  jpeg_compress_struct& c = s.cinfo;
  if (setjmp(s.errors.jump) != 0) {
    jpeg_abort_compress(&c);
    return kLibraryFailed;
  }
  if (c.raw_data_in) {
    const int lines = c.max_v_samp_factor * DCTSIZE;
    JSAMPARRAY planes[3] = {s.planeRows[0].data(), s.planeRows[1].data(), s.planeRows[2].data()};
    for (int first = 0; first < s.source.height; first += lines) {
      convertMcuRow(s, first, lines);
      jpeg_write_raw_data(&c, planes, static_cast<JDIMENSION>(lines));
    }
  } else {
    while (c.next_scanline < c.image_height) {
      jpeg_write_scanlines(&c, s.sourceRows.data() + c.next_scanline, c.image_height - c.next_scanline);
    }
  }
  jpeg_finish_compress(&c);
  return s.sinkResult;
}

}  // namespace kestrium
