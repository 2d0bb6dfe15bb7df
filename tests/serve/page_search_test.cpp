// The browser page and the subtree search, rendered into a string over real
// directory trees: escaping, rows, sizes, and every search limit.
#include "platform/system.hpp"
#include "serve/browser_page.hpp"
#include "serve/search.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace tovel::serve {
namespace {

class Collector final : public BodyWriter {
  public:
    Result<> write(std::string_view bytes) override {
        text.append(bytes);
        return {};
    }
    std::string text;
};

class Pages : public ::testing::Test {
  protected:
    std::string root() { return sys::realpath(dir_.path()).value(); }
    // The page of `relative` ("/" or "/a/b/"), with an optional raw query.
    std::string page(const std::string& relative, HiddenFiles hidden = HiddenFiles::Hidden,
                     std::optional<std::string_view> query = std::nullopt) {
        std::string rootPath = root();
        std::string real = rootPath + relative.substr(0, relative.size() - 1);
        auto reader = sys::DirectoryReader::open(real);
        EXPECT_TRUE(reader);
        BrowserPageRequest request{rootPath, relative, real, hidden, query, &*reader};
        Collector out;
        EXPECT_TRUE(writeBrowserPage(out, request));
        return out.text;
    }
    std::string search(const std::string& query, HiddenFiles hidden = HiddenFiles::Hidden) {
        std::string text = page("/", hidden, query);
        return text.substr(text.find("<h2 class=\"search-title\">"));
    }
    std::string note(const std::string& text) {
        std::size_t at = text.find("<div class=\"note\">") + 18;
        return text.substr(at, text.find("</div>", at) - at);
    }
    void has(const std::string& text, const std::string& piece) {
        EXPECT_NE(text.find(piece), std::string::npos) << piece;
    }
    test::TempDir dir_;
};

TEST_F(Pages, RowsCarryKindsSizesBadgesLinksAndEscapes) {
    dir_.writeFile("small.txt", std::string(1023, 'x'));
    dir_.writeFile("mid.bin", std::string(1536, 'x'));
    dir_.writeFile("id.pem", "k");
    dir_.writeFile("sub/inner", "y");
    dir_.writeFile(".bashrc", "z");
    dir_.writeFile("a\"<b>&'c d.txt", "x");
    ASSERT_EQ(::symlink("/", (dir_.path() + "/rootlink").c_str()), 0);
    ASSERT_EQ(::symlink("sub", (dir_.path() + "/inner").c_str()), 0);
    std::string text = page("/");
    has(text, "<tr><td class=\"kind\">\U0001F4C4</td><td class=\"name\"><a href=\"/small.txt\">"
              "small.txt</a></td><td class=\"size\">1023 B</td><td class=\"actions\"><div "
              "class=\"actions\"><a class=\"button secondary\" href=\"/small.txt\">Open</a><a "
              "class=\"button secondary\" href=\"/small.txt?download=1\">Download</a><button "
              "type=\"button\" class=\"secondary\" data-copy-path=\"" +
                  root() + "/small.txt\">Copy path</button></div></td></tr>");
    has(text, ">1.5 KiB<");
    has(text, "<a href=\"/id.pem\">id.pem</a><span class=\"badge\">Protected</span></td><td "
              "class=\"size\">1 B</td><td class=\"actions\"><div class=\"actions\"><button");
    has(text, "\U0001F4C1</td><td class=\"name\"><a href=\"/__tovel/sub/\">sub</a>");
    has(text, "<a href=\"/a%22%3Cb%3E%26%27c%20d.txt\">a&quot;&lt;b&gt;&amp;&#39;c d.txt</a>");
    has(text, "\u2197</td><td class=\"name\"><a href=\"/__tovel/rootlink/\">rootlink</a><span "
              "class=\"detail\">\u2192 / \u00b7 outside selected root</span>");
    has(text, "<a href=\"/__tovel/inner/\">inner</a><span class=\"detail\">\u2192 sub</span>");
    EXPECT_EQ(text.find(".bashrc"), std::string::npos);
    std::string shown = page("/", HiddenFiles::Shown);
    has(shown, ".bashrc");
    has(shown, "<div class=\"warning\"><strong>Hidden files are visible.</strong> Credential "
               "stores, private keys, and common secret files remain protected.</div>");
    has(shown, "href=\"/__tovel/\">Hide dotfiles</a>");
}

TEST_F(Pages, BreadcrumbsAndEmptyFolder) {
    ASSERT_EQ(::mkdir((dir_.path() + "/a").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((dir_.path() + "/a/b").c_str(), 0755), 0);
    std::string text = page("/a/b/");
    has(text, "<nav class=\"crumbs\"><a href=\"/__tovel/\">~</a><span class=\"slash\">/</span><a "
              "href=\"/__tovel/a/\">a</a><span class=\"slash\">/</span><a "
              "href=\"/__tovel/a/b/\">b</a></nav>");
    has(text, "<tr><td colspan=\"4\" class=\"empty\">This folder is empty.</td></tr></tbody>"
              "</table></section>");
    EXPECT_TRUE(text.ends_with("</main></body></html>"));
}

TEST_F(Pages, QueryIsDecodedEscapedAndFindsNames) {
    dir_.writeFile("Alpha Beta.txt", "x");
    dir_.writeFile("Needles/x", "");
    has(page("/", HiddenFiles::Hidden, "alpha+b%65ta%22"), "value=\"alpha beta&quot;\"");
    std::string found = search("ALPHA+beta");
    has(found, "<tr><td class=\"kind\">\u2315</td><td class=\"name\"><a href=\"/Alpha%20Beta.txt\">"
               "Alpha Beta.txt</a></td><td>file name</td></tr>");
    EXPECT_EQ(note(found), "1 result; scanned 2 files and 0 MiB.");
    has(search("needle"), "<a href=\"/__tovel/Needles/\">Needles</a></td><td>folder name<");
    std::string none = search("zzz");
    has(none, "<tr><td colspan=\"3\" class=\"empty\">No matches found.</td></tr>");
    EXPECT_EQ(note(none), "0 results; scanned 2 files and 0 MiB.");
}

TEST_F(Pages, SearchStopsAtTwoHundredRows) {
    for (int i = 0; i < 300; ++i)
        dir_.writeFile("m/match" + std::to_string(i), "");
    std::string text = search("match");
    int rows = 0;
    for (std::size_t at = 0; (at = text.find("\u2315", at)) != std::string::npos; ++at)
        ++rows;
    EXPECT_EQ(rows, 200);
    has(note(text), " Search stopped at its safety limit; narrow the folder or query for more.");
}

TEST_F(Pages, SearchSkipsWhatItMustAndFindsAcrossReads) {
    dir_.writeFile("big-needle.txt", std::string(3 * 1048576, 'a'));
    for (const char* skipped : {"node_modules/needle", ".git/needle", ".ssh/config", ".bashrc"})
        dir_.writeFile(skipped, "needle");
    dir_.writeFile("Node_Modules/needle-inside", "");
    dir_.writeFile("binary.dat", std::string("\0needle", 7));
    dir_.writeFile("straddle.txt", std::string(65536 - 3, 'x') + "NEEDLE");
    ASSERT_EQ(::symlink("straddle.txt", (dir_.path() + "/needle-link").c_str()), 0);
    std::string text = search("needle");
    for (const char* absent : {"big-needle", "node_modules", ".git", "bashrc", "binary", "link"})
        EXPECT_EQ(text.find(absent), std::string::npos) << absent;
    has(text, ">Node_Modules/needle-inside</a></td><td>file name<");
    has(text, ">straddle.txt</a></td><td>file contents<");
    // The 3 MiB file is counted but its bytes are not.
    EXPECT_EQ(note(text), "2 results; scanned 4 files and 0 MiB.");
    std::string shown = search("needle", HiddenFiles::Shown);
    has(shown, ">.bashrc</a></td><td>file contents<");
    EXPECT_EQ(shown.find(".ssh"), std::string::npos);
}

} // namespace
} // namespace tovel::serve
