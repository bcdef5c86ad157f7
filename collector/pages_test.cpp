#include "collector/pages.h"

#include <gmock/gmock.h>

namespace vantor::collector {

namespace {

using testing::HasSubstr;
using testing::Not;

const char* const kName = "0a1b2c3d-0000-1111-22223333-44445555";

TEST(PagesTest, EscapeWhatWouldBeMarkup) {
    EXPECT_EQ("&lt;b title=&quot;a&amp;b&quot;&gt;it&#39;s&lt;/b&gt;",
              escapeHtml("<b title=\"a&b\">it's</b>"));
    EXPECT_EQ("plain", escapeHtml("plain"));
}

TEST(PagesTest, KnowThePathOfAStackTrace) {
    EXPECT_EQ("/diagnostics/crashes/0a/1b/0a1b2c3d-0000-1111-22223333-44445555.stack", stackPathOf(kName));
}

TEST(PagesTest, ListReportsWithLinks) {
    const std::string page =
        reportListPage({{kName, "2026-11-21 12:00:00", "SIGSEGV /SEGV_MAPERR", "std::vector<int>::at()"}});
    EXPECT_THAT(
        page,
        HasSubstr("<tr><td><a href=\"/diagnostics/crashes/0a/1b/0a1b2c3d-0000-1111-22223333-44445555.stack\">"
                  "0a1b2c3d-0000-1111-22223333-44445555</a></td><td>2026-11-21 12:00:00</td>"
                  "<td>SIGSEGV /SEGV_MAPERR</td><td>std::vector&lt;int&gt;::at()</td></tr>\n"));
}

TEST(PagesTest, SayWhichReportIsNotWalkedYet) {
    EXPECT_THAT(reportListPage({{kName, "now", "", ""}}), HasSubstr("<td>(not walked yet)</td><td></td>"));
}

TEST(PagesTest, SayThatThereAreNone) {
    const std::string page = reportListPage({});
    EXPECT_THAT(page, HasSubstr("<p>None has arrived yet.</p>"));
    EXPECT_THAT(page, Not(HasSubstr("<table>")));
}

} // namespace

} // namespace vantor::collector
