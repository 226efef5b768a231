// Access to the binaural impulse tables held as little-endian bytes.
#include "encoders/impulse_tables.h"

#include <cstring>

void CopyImpulseTable(int index, float* out)
{
    // The data is little-endian float32, which is the byte order of every
    // target this library is built for, so a byte copy is a float copy.
    std::memcpy(out, ImpulseTableData + std::size_t(index) * kImpulseTableLength * 4,
                kImpulseTableLength * 4);
}
