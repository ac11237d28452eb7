// The pack codec against its model. The input is a format, a NUL, and the bytes for its fields; the last of them also
// says which fields are unpacked to nowhere.
#include "containers/codec_model.hpp"
#include "require.hpp"

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return setenv("TZ", "UTC0", 1); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input(reinterpret_cast<const char *>(data), size);
  const std::string format = input.c_str(), bytes = input.substr(std::min(format.size() + 1, size));
  require(codec::difference(format, bytes, bytes.empty() ? 0 : static_cast<uint8_t>(bytes.back())));
  return 0;
}
