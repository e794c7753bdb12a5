// Database list parser: "[a,b,...]" texts into output arrays of exactly the
// sizes the loader uses (and one entry), so any write past n is seen.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "database.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::unique_ptr<char[]> text = tqlfuzz::Terminated(data, size);
    for (int n : {1, 6, 20, 80, 260}) {
        std::unique_ptr<double[]> out(new double[n]);
        GetDataFormChar(text.get(), out.get(), n);
    }
    return 0;
}
