// Writes the dialog's picture, bitmap resource 102: 130 x 32 pixels with a
// palette of 256 colours, as a Windows BMP file for the resource compiler.
// The picture is the word KELVANE in a block font over a dark gradient with
// a waveform beneath it; everything is computed in whole numbers, so the file
// is the same byte for byte on every machine.
//
//   make_logo_bitmap OUTPUT.bmp

#include <array>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

constexpr int kWidth = 130;
constexpr int kHeight = 32;
constexpr int kPaletteSize = 256;
// Each pixel row of an 8-bit BMP is padded to a multiple of four bytes.
constexpr int kRowBytes = (kWidth + 3) / 4 * 4;

// Palette: indices 0-191 a ramp from near black to deep teal for the
// background, 192-223 a ramp of the waveform's colour, 224-255 greys up to
// white for the lettering.
constexpr int kBackgroundRamp = 0;
constexpr int kWaveRamp = 192;
constexpr int kLetterRamp = 224;

struct Rgb {
  std::uint8_t r, g, b;
};

std::array<Rgb, kPaletteSize> MakePalette() {
  std::array<Rgb, kPaletteSize> palette{};
  for (int i = 0; i < 192; ++i) {
    palette[i] = {static_cast<std::uint8_t>(8 + i / 12),
                  static_cast<std::uint8_t>(16 + i * 80 / 191),
                  static_cast<std::uint8_t>(32 + i * 96 / 191)};
  }
  for (int i = 0; i < 32; ++i) {
    palette[kWaveRamp + i] = {static_cast<std::uint8_t>(40 + i * 4),
                              static_cast<std::uint8_t>(120 + i * 4),
                              static_cast<std::uint8_t>(160 + i * 3)};
  }
  for (int i = 0; i < 32; ++i) {
    const auto level = static_cast<std::uint8_t>(131 + i * 4);
    palette[kLetterRamp + i] = {level, level, level};
  }
  return palette;
}

// A 5 x 7 block font, one byte per row, the high five bits of the low byte
// from left to right.
struct Glyph {
  char letter;
  std::array<std::uint8_t, 7> rows;
};

constexpr std::array<Glyph, 6> kFont = {{
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}},
    {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}},
    {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'A', {0x0E, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'N', {0x11, 0x19, 0x15, 0x13, 0x11, 0x11, 0x11}},
}};

const Glyph* FindGlyph(char letter) {
  for (const Glyph& glyph : kFont) {
    if (glyph.letter == letter) return &glyph;
  }
  return nullptr;
}

// A triangle wave of whole numbers, period 'period', between 0 and 'peak'.
int Triangle(int x, int period, int peak) {
  const int phase = x % period;
  const int half = period / 2;
  return phase < half ? phase * peak / half : (period - phase) * peak / half;
}

// Pixels from the top row down; index [y][x].
using Picture = std::array<std::array<std::uint8_t, kWidth>, kHeight>;

Picture Draw() {
  Picture picture{};
  // Background: darker at the top and the left.
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      picture[y][x] = static_cast<std::uint8_t>(kBackgroundRamp + (x * 120 / (kWidth - 1)) +
                                                (y * 71 / (kHeight - 1)));
    }
  }
  // Waveform along the bottom: the sum of two triangles, brighter near the middle.
  for (int x = 0; x < kWidth; ++x) {
    const int y = 29 - (Triangle(x, 26, 4) + Triangle(x + 5, 10, 2));
    const int distance = x < kWidth / 2 ? x : kWidth - 1 - x;
    const int shade = distance * 31 / (kWidth / 2);
    picture[y][x] = static_cast<std::uint8_t>(kWaveRamp + shade);
  }
  // Lettering: seven letters of 5 x 7 cells at three pixels a cell, one cell
  // apart, centred.
  constexpr char kWord[] = "KELVANE";
  constexpr int kScale = 3;
  constexpr int kLetters = sizeof(kWord) - 1;
  constexpr int kAdvance = 6 * kScale;
  constexpr int kLeft = (kWidth - (kLetters * kAdvance - kScale)) / 2;
  constexpr int kTop = 2;
  for (int n = 0; n < kLetters; ++n) {
    const Glyph* glyph = FindGlyph(kWord[n]);
    for (int row = 0; row < 7; ++row) {
      for (int column = 0; column < 5; ++column) {
        if (((glyph->rows[row] >> (4 - column)) & 1) == 0) continue;
        for (int dy = 0; dy < kScale; ++dy) {
          for (int dx = 0; dx < kScale; ++dx) {
            const int x = kLeft + n * kAdvance + column * kScale + dx;
            const int y = kTop + row * kScale + dy;
            // Brighter towards the top of each letter.
            picture[y][x] = static_cast<std::uint8_t>(kLetterRamp + 31 - row * 2 - dy);
          }
        }
      }
    }
  }
  return picture;
}

void Put16(std::vector<std::uint8_t>& out, std::uint32_t value) {
  out.push_back(static_cast<std::uint8_t>(value));
  out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void Put32(std::vector<std::uint8_t>& out, std::uint32_t value) {
  Put16(out, value & 0xFFFF);
  Put16(out, value >> 16);
}

std::vector<std::uint8_t> EncodeBmp(const Picture& picture,
                                    const std::array<Rgb, kPaletteSize>& palette) {
  constexpr std::uint32_t kFileHeaderBytes = 14;
  constexpr std::uint32_t kInfoHeaderBytes = 40;
  constexpr std::uint32_t kPaletteBytes = kPaletteSize * 4;
  constexpr std::uint32_t kPixelOffset = kFileHeaderBytes + kInfoHeaderBytes + kPaletteBytes;
  constexpr std::uint32_t kPixelBytes = kRowBytes * kHeight;

  std::vector<std::uint8_t> out;
  // BITMAPFILEHEADER
  out.push_back('B');
  out.push_back('M');
  Put32(out, kPixelOffset + kPixelBytes);
  Put32(out, 0);
  Put32(out, kPixelOffset);
  // BITMAPINFOHEADER: bottom-up rows, 8 bits a pixel, no compression.
  Put32(out, kInfoHeaderBytes);
  Put32(out, kWidth);
  Put32(out, kHeight);
  Put16(out, 1);
  Put16(out, 8);
  Put32(out, 0);
  Put32(out, kPixelBytes);
  Put32(out, 2835);  // 72 dots per inch
  Put32(out, 2835);
  Put32(out, kPaletteSize);
  Put32(out, 0);
  // Palette entries are blue, green, red, reserved.
  for (const Rgb& colour : palette) {
    out.push_back(colour.b);
    out.push_back(colour.g);
    out.push_back(colour.r);
    out.push_back(0);
  }
  for (int y = kHeight - 1; y >= 0; --y) {
    for (int x = 0; x < kWidth; ++x) out.push_back(picture[y][x]);
    for (int pad = kWidth; pad < kRowBytes; ++pad) out.push_back(0);
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUTPUT.bmp\n", argv[0]);
    return 2;
  }
  const std::vector<std::uint8_t> bmp = EncodeBmp(Draw(), MakePalette());
  std::FILE* file = std::fopen(argv[1], "wb");
  if (file == nullptr) {
    std::perror(argv[1]);
    return 1;
  }
  const bool written = std::fwrite(bmp.data(), 1, bmp.size(), file) == bmp.size();
  if (std::fclose(file) != 0 || !written) {
    std::perror(argv[1]);
    return 1;
  }
  return 0;
}
