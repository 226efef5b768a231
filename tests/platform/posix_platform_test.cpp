// The libraries and message boxes of the POSIX platform, called directly, as
// the probe of dialog_emulator.h sees them.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "platform/posix/dialog_emulator.h"

// The probe, among this program's exports.
extern "C" {
__attribute__((visibility("default"))) PlatformProbe PosixPlatformProbe = {};
}
static_assert(std::string_view(kPlatformProbeSymbol) == "PosixPlatformProbe");

namespace {

class PosixPlatform : public ::testing::Test {
protected:
    void SetUp() override { PosixPlatformProbe = PlatformProbe{}; }
};

TEST_F(PosixPlatform, EmptyLibraryName_LoadsNothing)
{
    EXPECT_EQ(LoadLibraryW(u""), nullptr);
    EXPECT_EQ(LoadLibraryW(nullptr), nullptr);
    EXPECT_EQ(PosixPlatformProbe.libraryLoads, 0u);
}

TEST_F(PosixPlatform, LoadsAndReleases_Counted)
{
    HMODULE library = LoadLibraryW(u"libm.so.6");
    ASSERT_NE(library, nullptr);
    EXPECT_NE(GetProcAddress(library, "cos"), nullptr);
    EXPECT_EQ(LoadLibraryW(u"/nonexistent/libnothing.so"), nullptr);
    EXPECT_EQ(PosixPlatformProbe.libraryLoads, 1u);
    EXPECT_EQ(PosixPlatformProbe.libraryReleases, 0u);
    EXPECT_EQ(FreeLibrary(library), TRUE);
    EXPECT_EQ(PosixPlatformProbe.libraryReleases, 1u);
    // A call without a library counts too: it is a call all the same.
    EXPECT_EQ(FreeLibrary(nullptr), FALSE);
    EXPECT_EQ(PosixPlatformProbe.libraryReleases, 2u);
}

TEST_F(PosixPlatform, MessageBox_TypeOwnerCaptionAndText)
{
    HWND__ owner{nullptr};
    EXPECT_EQ(MessageBoxW(&owner, u"first\nsecond", u"Caption", MB_OK | MB_ICONINFORMATION), IDOK);
    EXPECT_EQ(PosixPlatformProbe.messageBoxes, 1u);
    EXPECT_EQ(PosixPlatformProbe.lastBoxType, 0x40u);
    EXPECT_EQ(PosixPlatformProbe.lastBoxOwner, &owner);
    EXPECT_EQ(std::u16string(PosixPlatformProbe.lastBoxCaption), u"Caption");
    EXPECT_EQ(std::u16string(PosixPlatformProbe.lastBoxText), u"first\nsecond");
    MessageBoxW(nullptr, u"failed", u"Other", MB_OK | MB_ICONEXCLAMATION);
    EXPECT_EQ(PosixPlatformProbe.messageBoxes, 2u);
    EXPECT_EQ(PosixPlatformProbe.lastBoxType, 0x30u);
    EXPECT_EQ(PosixPlatformProbe.lastBoxOwner, nullptr);
}

}  // namespace
