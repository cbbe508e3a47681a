// An installable Video for Windows compressor of the tests' own: "vidc.mjpg",
// 24-bit bottom-up bitmaps in, baseline JPEG frames out, on libjpeg. Wine ships
// no compressor that takes 24-bit frames, so the Windows server's "vfw" encoder
// records through this one, loaded by the Video Compression Manager from the
// registry the way any installed codec is. It behaves as a codec in the field
// does: it checks the formats it is given, sizes its output by the frame and
// marks every frame a key frame.

// clang-format off
#include <windows.h>
#include <vfw.h>
// clang-format on

#include <csetjmp>
#include <cstdio>  // jpeglib.h needs FILE
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include <jpeglib.h>

namespace {

constexpr DWORD kMjpg = mmioFOURCC('M', 'J', 'P', 'G');
constexpr int kQuality = 90;
constexpr wchar_t kDrivers32[] = L"Software\\Microsoft\\Windows NT\\CurrentVersion\\Drivers32";
constexpr wchar_t kValue[] = L"vidc.mjpg";
constexpr wchar_t kFileName[] = L"kestrium_test_mjpg.dll";

HMODULE self = nullptr;

// The bitmap header a message's parameter points at, or null.
BITMAPINFOHEADER* header(LPARAM info) {
  return info != 0 ? &reinterpret_cast<BITMAPINFO*>(info)->bmiHeader : nullptr;
}

// The only input taken: uncompressed 24-bit, bottom-up, of a size JPEG can hold.
bool takes(const BITMAPINFOHEADER* in) {
  return in != nullptr && in->biCompression == BI_RGB && in->biBitCount == 24 && in->biPlanes == 1 &&
         in->biWidth > 0 && in->biWidth <= JPEG_MAX_DIMENSION && in->biHeight > 0 &&
         in->biHeight <= JPEG_MAX_DIMENSION;
}

DWORD stride(const BITMAPINFOHEADER& in) { return (static_cast<DWORD>(in.biWidth) * 3 + 3) & ~3u; }
// No frame of ours is larger than its bitmap: a larger one is refused.
DWORD largestFrame(const BITMAPINFOHEADER& in) { return stride(in) * static_cast<DWORD>(in.biHeight); }

struct Failure {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
};
void fail(j_common_ptr cinfo) { std::longjmp(reinterpret_cast<Failure*>(cinfo->err)->jump, 1); }

// One frame, top row first as JPEG stores it: the bitmap's last row. Only plain
// data lives across the jump. The size, or 0 when libjpeg failed or the frame
// would not fit.
unsigned long compress(const BITMAPINFOHEADER& in, const BYTE* bits, BYTE* out, unsigned long room) {
  jpeg_compress_struct cinfo;
  Failure failure;
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  cinfo.err = jpeg_std_error(&failure.manager);
  failure.manager.error_exit = fail;
  if (setjmp(failure.jump) != 0) {
    jpeg_destroy_compress(&cinfo);
    std::free(buffer);
    return 0;
  }
  jpeg_create_compress(&cinfo);
  jpeg_mem_dest(&cinfo, &buffer, &size);
  cinfo.image_width = static_cast<JDIMENSION>(in.biWidth);
  cinfo.image_height = static_cast<JDIMENSION>(in.biHeight);
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_EXT_BGR;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, kQuality, TRUE);
  jpeg_start_compress(&cinfo, TRUE);
  const DWORD step = stride(in);
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(bits + step * (cinfo.image_height - 1 - cinfo.next_scanline));
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  const unsigned long written = size <= room ? size : 0;
  if (written != 0) std::memcpy(out, buffer, written);
  std::free(buffer);
  return written;
}

LRESULT outputFormat(const BITMAPINFOHEADER* in, BITMAPINFOHEADER* out) {
  if (!takes(in)) return ICERR_BADFORMAT;
  if (out == nullptr) return sizeof(BITMAPINFOHEADER);
  std::memset(out, 0, sizeof *out);
  out->biSize = sizeof *out;
  out->biWidth = in->biWidth;
  out->biHeight = in->biHeight;
  out->biPlanes = 1;
  out->biBitCount = 24;
  out->biCompression = kMjpg;
  out->biSizeImage = largestFrame(*in);
  return ICERR_OK;
}

LRESULT compressFrame(const ICCOMPRESS* c) {
  if (c == nullptr || !takes(c->lpbiInput) || c->lpbiOutput == nullptr || c->lpOutput == nullptr ||
      c->lpInput == nullptr) {
    return ICERR_BADPARAM;
  }
  const unsigned long size = compress(*c->lpbiInput, static_cast<const BYTE*>(c->lpInput),
                                      static_cast<BYTE*>(c->lpOutput), largestFrame(*c->lpbiInput));
  if (size == 0) return ICERR_INTERNAL;
  c->lpbiOutput->biSizeImage = size;
  if (c->lpdwFlags != nullptr) *c->lpdwFlags = AVIIF_KEYFRAME;
  if (c->lpckid != nullptr) *c->lpckid = mmioFOURCC('d', 'c', 0, 0);
  return ICERR_OK;
}

LRESULT info(ICINFO* to, DWORD bytes) {
  if (to == nullptr || bytes < sizeof(ICINFO)) return 0;
  std::memset(to, 0, sizeof *to);
  to->dwSize = sizeof *to;
  to->fccType = ICTYPE_VIDEO;
  to->fccHandler = kMjpg;
  to->dwFlags = VIDCF_QUALITY;
  to->dwVersion = 1;
  to->dwVersionICM = ICVERSION;
  std::wcscpy(to->szName, L"KMJPG");
  std::wcscpy(to->szDescription, L"Kestrium test MJPEG compressor");
  return sizeof *to;
}

}  // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) self = instance;
  return TRUE;
}

__declspec(dllexport) LRESULT WINAPI DriverProc(DWORD_PTR id, HDRVR driver, UINT message, LPARAM one, LPARAM two) {
  switch (message) {
    case DRV_LOAD:
    case DRV_FREE:
    case DRV_ENABLE:
    case DRV_DISABLE:
    case DRV_CLOSE:
      return 1;
    case DRV_OPEN: {
      // Opened as a video compressor or decompressor of its own code only; an
      // open without parameters is the configuration's.
      const auto* open = reinterpret_cast<const ICOPEN*>(two);
      if (open != nullptr && open->fccType != ICTYPE_VIDEO) return 0;
      return 1;
    }
    case ICM_GETINFO:
      return info(reinterpret_cast<ICINFO*>(one), static_cast<DWORD>(two));
    case ICM_COMPRESS_QUERY:
      return takes(header(one)) && (two == 0 || header(two)->biCompression == kMjpg) ? ICERR_OK : ICERR_BADFORMAT;
    case ICM_COMPRESS_GET_FORMAT:
      return outputFormat(header(one), header(two));
    case ICM_COMPRESS_GET_SIZE:
      return takes(header(one)) ? static_cast<LRESULT>(largestFrame(*header(one))) : 0;
    case ICM_COMPRESS_BEGIN:
      return takes(header(one)) ? ICERR_OK : ICERR_BADFORMAT;
    case ICM_COMPRESS:
      return compressFrame(reinterpret_cast<const ICCOMPRESS*>(one));
    case ICM_COMPRESS_END:
      return ICERR_OK;
    default:
      if (message < DRV_USER) return DefDriverProc(id, driver, message, one, two);
      return ICERR_UNSUPPORTED;
  }
}

// Installs this file as the machine's "vidc.mjpg" unless another codec is: 1 when
// it did (take it out again with kestriumUninstallCodec), 0 when another one is
// installed, -1 when the registry refused.
__declspec(dllexport) int kestriumInstallCodec() {
  wchar_t path[MAX_PATH];
  const DWORD length = GetModuleFileNameW(self, path, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return -1;
  // The driver loader takes what follows a space for arguments.
  if (std::wcschr(path, L' ') != nullptr) {
    wchar_t shortPath[MAX_PATH];
    const DWORD shortLength = GetShortPathNameW(path, shortPath, MAX_PATH);
    if (shortLength == 0 || shortLength >= MAX_PATH || std::wcschr(shortPath, L' ') != nullptr) return -1;
    std::wcscpy(path, shortPath);
  }
  HKEY key = nullptr;
  if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kDrivers32, 0, nullptr, 0, KEY_QUERY_VALUE | KEY_SET_VALUE, nullptr, &key,
                      nullptr) != ERROR_SUCCESS) {
    return -1;
  }
  wchar_t current[MAX_PATH] = {};
  DWORD bytes = sizeof current - sizeof(wchar_t);
  // One left by an earlier run of ours that did not end is taken over.
  if (RegQueryValueExW(key, kValue, nullptr, nullptr, reinterpret_cast<BYTE*>(current), &bytes) == ERROR_SUCCESS) {
    const size_t have = std::wcslen(current), name = std::wcslen(kFileName);
    if (have < name || _wcsicmp(current + have - name, kFileName) != 0) {
      RegCloseKey(key);
      return 0;
    }
  }
  const LONG set = RegSetValueExW(key, kValue, 0, REG_SZ, reinterpret_cast<const BYTE*>(path),
                                  static_cast<DWORD>((std::wcslen(path) + 1) * sizeof(wchar_t)));
  RegCloseKey(key);
  return set == ERROR_SUCCESS ? 1 : -1;
}

__declspec(dllexport) void kestriumUninstallCodec() {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDrivers32, 0, KEY_SET_VALUE, &key) != ERROR_SUCCESS) return;
  RegDeleteValueW(key, kValue);
  RegCloseKey(key);
}

}  // extern "C"
