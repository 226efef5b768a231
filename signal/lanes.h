// Four floats side by side in the vector unit (GCC and Clang vector
// extensions), the masks that their comparisons give (all ones where true),
// and loads and stores of four floats from memory of any alignment. Every
// lane keeps the operations of the scalar form, so the results are the
// scalar ones.
#pragma once

#include <cstdint>
#include <cstring>

typedef float Floats __attribute__((vector_size(16)));
typedef int32_t Masks __attribute__((vector_size(16)));

inline Floats LoadFloats(const float* p)
{
    Floats v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void StoreFloats(float* p, Floats v)
{
    std::memcpy(p, &v, sizeof v);
}
