// The device's custom scan sizes through the entry points. The read position
// in the sizes reply lives as long as the process and is never reset, so each
// open continues where the previous one stopped; this file therefore runs its
// opens in one fixed order, in a process of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "session_testutil.h"

namespace {

using st::Rig;
using st::sane;

const char* const DEVICE = "libusb/001/004";
const int BUILT_IN_SIZES = 20;  // page sizes of the 4200's family

std::vector<std::string> pageSizes(SANE_Handle h) {
    std::vector<std::string> out;
    const SANE_Option_Descriptor* d = sane().get_option_descriptor(h, st::OPT_ORIGINAL_SIZE);
    if (d == nullptr || d->constraint_type != SANE_CONSTRAINT_STRING_LIST) return out;
    for (const SANE_String_Const* s = d->constraint.string_list; *s != nullptr; ++s) out.push_back(*s);
    return out;
}

bool offers(const std::vector<std::string>& sizes, const char* name) {
    return std::find(sizes.begin(), sizes.end(), name) != sizes.end();
}

SANE_Status selectSize(SANE_Handle h, const char* name) {
    std::vector<char> v(name, name + strlen(name) + 1);
    return sane().control_option(h, st::OPT_ORIGINAL_SIZE, SANE_ACTION_SET_VALUE, v.data(), nullptr);
}

TEST(SessionSizes, MinimumEdgeAndAReadPositionThatIsNeverReset) {
    ASSERT_TRUE(sane().ok) << "the built backend could not be loaded";
    SANE_Handle h = nullptr;
    {
        // 0.999 inch is 25.37 mm, below the 25.4 mm minimum; one inch passes.
        Rig rig(st::Q4200, "[INTEGERS]\nCURRENTDPI=75\n", "size 999 4000 Tiny\nsize 1000 4000 Edge\n");
        ASSERT_TRUE(rig.loaded);
        ASSERT_EQ(SANE_STATUS_GOOD, sane().open(DEVICE, &h));
        std::vector<std::string> sizes = pageSizes(h);
        ASSERT_EQ(BUILT_IN_SIZES + 2u, sizes.size());
        EXPECT_EQ("Tiny", sizes[BUILT_IN_SIZES]);
        EXPECT_EQ("Edge", sizes[BUILT_IN_SIZES + 1]);

        ASSERT_EQ(SANE_STATUS_GOOD, selectSize(h, "Tiny"));
        int mark = usbsim_write_count(0);
        EXPECT_EQ(SANE_STATUS_UNSUPPORTED, sane().start(h));
        // Refused before the status request: only the wake went out.
        EXPECT_EQ(std::vector<std::string>{st::H_WAKE}, st::writeHeaders(mark));

        ASSERT_EQ(SANE_STATUS_GOOD, selectSize(h, "Edge"));
        st::Page page;
        ASSERT_EQ(SANE_STATUS_GOOD, sane().get_parameters(h, &page.params));
        EXPECT_EQ(75, page.params.pixels_per_line);
        EXPECT_EQ(300, page.params.lines);
        ASSERT_EQ(SANE_STATUS_GOOD, sane().start(h));
        st::readPage(h, 32768, page);
        EXPECT_EQ(SANE_STATUS_EOF, page.end);
        EXPECT_EQ(75u * 3u * 300u, page.data.size());
        std::string why;
        EXPECT_TRUE(st::colourPatternMatches(page, &why)) << why;
        sane().cancel(h);
        sane().close(h);
        usbsim_reset();
    }
    {
        // Entries of the same length: the second open starts at the third.
        Rig rig(st::Q4200, "", "size 2000 3000 Aaaa\nsize 2000 3000 Bbbb\nsize 2000 3000 Cccc\nsize 2000 3000 Dddd\n");
        ASSERT_TRUE(rig.loaded);
        ASSERT_EQ(SANE_STATUS_GOOD, sane().open(DEVICE, &h));
        std::vector<std::string> sizes = pageSizes(h);
        EXPECT_EQ(BUILT_IN_SIZES + 2u, sizes.size());
        EXPECT_FALSE(offers(sizes, "Aaaa"));
        EXPECT_FALSE(offers(sizes, "Bbbb"));
        EXPECT_TRUE(offers(sizes, "Cccc"));
        EXPECT_TRUE(offers(sizes, "Dddd"));
        sane().close(h);

        // The position is now at the end of that reply: nothing is left.
        ASSERT_EQ(SANE_STATUS_GOOD, sane().open(DEVICE, &h));
        EXPECT_EQ((size_t)BUILT_IN_SIZES, pageSizes(h).size());
        sane().close(h);
        usbsim_reset();
    }
    {
        // A reply that announces nine sizes and breaks off inside the second
        // one that the position reaches (at byte 45): only the whole one counts.
        std::string raw = "sizes_raw 09";
        for (int i = 1; i < 45; ++i) raw += "00";
        raw += " 04005a5a5a5ae803a00f00 0a004142\n";
        Rig rig(st::Q4200, "", raw);
        ASSERT_TRUE(rig.loaded);
        ASSERT_EQ(SANE_STATUS_GOOD, sane().open(DEVICE, &h));
        std::vector<std::string> sizes = pageSizes(h);
        EXPECT_EQ(BUILT_IN_SIZES + 1u, sizes.size());
        EXPECT_TRUE(offers(sizes, "ZZZZ"));
        sane().close(h);
        usbsim_reset();
    }
}

}  // namespace
