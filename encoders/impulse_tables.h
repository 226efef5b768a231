// The six binaural impulse tables, 8192 little-endian floats each, back to
// back in the library's initialised data. Read only by the engine's
// construction, which transforms them.
#pragma once

#include <cstdint>

constexpr int kImpulseTableCount = 6;
constexpr uint32_t kImpulseTableLength = 8192;
constexpr uint32_t kImpulseTableBytes = kImpulseTableCount * kImpulseTableLength * 4;  // 196608

enum ImpulseTableIndex {
    ImpulseCentreLeft = 0,    // centre to the left ear
    ImpulseCentreRight = 1,   // centre to the right ear
    ImpulseFrontNear = 2,     // front speaker to the ear on its own side
    ImpulseFrontFar = 3,      // front speaker to the opposite ear
    ImpulseSurroundNear = 4,  // surround speaker to the ear on its own side
    ImpulseSurroundFar = 5,   // surround speaker to the opposite ear
};

// The raw bytes, little-endian float32, in the order of ImpulseTableIndex.
extern const unsigned char ImpulseTableData[kImpulseTableBytes];

// Copies table `index` (8192 floats) to `out`.
void CopyImpulseTable(int index, float* out);
