// Measures the engine's two plan shapes (16384-point real transforms in
// place, forward and inverse) and saves what the planner learned, for the
// test processes to load.
#include <fftw3.h>

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_test_wisdom FILE\n");
        return 2;
    }
    constexpr int kPoints = 16384;
    float* data = fftwf_alloc_real(kPoints + 2);
    fftwf_plan forward = fftwf_plan_dft_r2c_1d(kPoints, data, reinterpret_cast<fftwf_complex*>(data),
                                               FFTW_MEASURE);
    fftwf_plan inverse = fftwf_plan_dft_c2r_1d(kPoints, reinterpret_cast<fftwf_complex*>(data), data,
                                               FFTW_MEASURE);
    const int ok = fftwf_export_wisdom_to_filename(argv[1]);
    fftwf_destroy_plan(forward);
    fftwf_destroy_plan(inverse);
    fftwf_free(data);
    return ok ? 0 : 1;
}
