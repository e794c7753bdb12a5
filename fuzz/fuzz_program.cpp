// Motion program decoder: the whole file through DecodeInstructionFile, then
// every line on its own through the line decoder and the point-list parser,
// each line in a buffer of exactly its length plus the terminator.
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "fuzz_support.h"
#include "instruction.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    tqlfuzz::SilenceStdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = tqlfuzz::ScratchDir() + "/data.txt";
    tqlfuzz::WriteBytes(path, data, size);
    std::list<InstructionUnit> list;
    DecodeInstructionFile(path, &list);

    for (const auto& line : tqlfuzz::Lines(data, size)) {
        InstructionUnit unit;
        unit.DecodeInstruction(line.get());
        // Both list sizes the program uses: one point, an arc's two points.
        for (int n : {6, kMaxInstructionPositionNum}) {
            std::unique_ptr<double[]> values(new double[n]);
            GetLineArray(line.get(), values.get(), n);
        }
    }
    return 0;
}
