// What libFuzzer calls.
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    selvio::check({reinterpret_cast<const char*>(data), size});
    return 0;
}
