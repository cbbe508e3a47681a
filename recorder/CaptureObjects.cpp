#include "recorder/CaptureObjects.h"

namespace kestrium {

bool CaptureObjects::openCommonData() {
  commonData = platform::SharedMapping(name(kCommonDataSuffix), sizeof(CommonData));
  return commonData.open() && commonData.size() >= sizeof(CommonData);
}

bool CaptureObjects::openEncoderBuffer(uint64_t size) {
  encoderBuffer = platform::SharedMapping(name(kEncoderBufferSuffix), size);
  return encoderBuffer.open();
}

bool CaptureObjects::openSourceBuffer(uint64_t size) {
  sourceBuffer = platform::SharedMapping(name(kSourceBufferSuffix), size);
  return sourceBuffer.open();
}

void CaptureObjects::closeAll() {
  sourceBuffer.close();
  encoderBuffer.close();
  commonData.close();
  newEncoded.close();
  newSource.close();
  clientAlive.close();
}

}  // namespace kestrium
