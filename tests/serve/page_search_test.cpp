// The browser page and the subtree search, rendered into a string over real
// directory trees: escaping, rows, sizes, and every search limit.
#include "platform/system.hpp"
#include "serve/browser_page.hpp"
#include "serve/html_text.hpp"
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
    std::string page(const std::string& relative, HiddenFiles hidden = HiddenFiles::Hidden,
                     std::optional<std::string_view> query = std::nullopt) {
        std::string real =
            root() + (relative == "/" ? "" : relative.substr(0, relative.size() - 1));
        auto reader = sys::DirectoryReader::open(real);
        EXPECT_TRUE(reader);
        std::string rootPath = root();
        BrowserPageRequest request{rootPath, relative, real, hidden, query, &*reader};
        Collector out;
        EXPECT_TRUE(writeBrowserPage(out, request));
        return out.text;
    }
    std::string search(const std::string& query, HiddenFiles hidden = HiddenFiles::Hidden) {
        auto reader = sys::DirectoryReader::open(root());
        EXPECT_TRUE(reader);
        SearchRequest request{query, "", hidden, &*reader};
        Collector out;
        EXPECT_TRUE(writeSearchResults(out, request));
        return out.text;
    }
    std::string note(const std::string& text) {
        std::size_t at = text.find("<div class=\"note\">");
        return at == std::string::npos ? ""
                                       : text.substr(at + 18, text.find("</div>", at) - at - 18);
    }
    int rows(const std::string& text) {
        int count = 0;
        for (std::size_t at = 0; (at = text.find("\u2315", at)) != std::string::npos; ++at)
            ++count;
        return count;
    }
    test::TempDir dir_;
};

TEST(HtmlText, EscapesAndEncodesExactly) {
    std::string html;
    appendHtmlEscaped(html, "a&b<c>d\"e'f\xc3\xa9");
    EXPECT_EQ(html, "a&amp;b&lt;c&gt;d&quot;e&#39;f\xc3\xa9");
    std::string url;
    appendPercentEncoded(url, "A-z_0.9~/ \"#?%\xff");
    EXPECT_EQ(url, "A-z_0.9~/%20%22%23%3F%25%FF");
    std::string link;
    appendBrowserLink(link, "a b", HiddenFiles::Shown);
    EXPECT_EQ(link, "/__tovel/a%20b/?hidden=1");
    link.clear();
    appendBrowserLink(link, "", HiddenFiles::Hidden);
    EXPECT_EQ(link, "/__tovel/");
}

TEST_F(Pages, HostileNamesStayInsideTheirAttributes) {
    dir_.writeFile("a\"<b>&'c d.txt", "x");
    std::string text = page("/");
    EXPECT_NE(text.find("<a href=\"/a%22%3Cb%3E%26%27c%20d.txt\">a&quot;&lt;b&gt;&amp;&#39;c "
                        "d.txt</a>"),
              std::string::npos);
    EXPECT_EQ(text.find("<b>&"), std::string::npos);
}

TEST_F(Pages, RowsCarryKindsSizesBadgesAndActions) {
    dir_.writeFile("small.txt", std::string(1023, 'x'));
    dir_.writeFile("mid.bin", std::string(1536, 'x'));
    dir_.writeFile("id.pem", "k");
    dir_.writeFile("sub/inner", "y");
    dir_.writeFile(".bashrc", "z");
    std::string text = page("/");
    std::string real = root();
    EXPECT_NE(text.find("<tr><td class=\"kind\">\U0001F4C4</td><td class=\"name\"><a "
                        "href=\"/small.txt\">small.txt</a></td><td class=\"size\">1023 B</td>"
                        "<td class=\"actions\"><div class=\"actions\"><a class=\"button "
                        "secondary\" href=\"/small.txt\">Open</a><a class=\"button secondary\" "
                        "href=\"/small.txt?download=1\">Download</a><button type=\"button\" "
                        "class=\"secondary\" data-copy-path=\"" +
                        real + "/small.txt\">Copy path</button></div></td></tr>"),
              std::string::npos);
    EXPECT_NE(text.find(">1.5 KiB<"), std::string::npos);
    EXPECT_NE(text.find("<a href=\"/id.pem\">id.pem</a><span class=\"badge\">Protected</span>"
                        "</td><td class=\"size\">1 B</td><td class=\"actions\"><div "
                        "class=\"actions\"><button"),
              std::string::npos);
    EXPECT_NE(text.find("\U0001F4C1</td><td class=\"name\"><a href=\"/__tovel/sub/\">sub</a>"),
              std::string::npos);
    EXPECT_EQ(text.find(".bashrc"), std::string::npos);
    EXPECT_NE(text.find(">Show dotfiles</a>"), std::string::npos);

    std::string shown = page("/", HiddenFiles::Shown);
    EXPECT_NE(shown.find(".bashrc"), std::string::npos);
    EXPECT_NE(shown.find("<div class=\"warning\"><strong>Hidden files are visible.</strong> "
                         "Credential stores, private keys, and common secret files remain "
                         "protected.</div>"),
              std::string::npos);
    EXPECT_NE(shown.find("href=\"/__tovel/\">Hide dotfiles</a>"), std::string::npos);
}

TEST_F(Pages, LinksShowTargetsAndEscapes) {
    dir_.writeFile("real/file", "x");
    ASSERT_EQ(::symlink("/", (dir_.path() + "/rootlink").c_str()), 0);
    ASSERT_EQ(::symlink("real", (dir_.path() + "/inner").c_str()), 0);
    std::string text = page("/");
    EXPECT_NE(text.find("\u2197</td><td class=\"name\"><a href=\"/__tovel/rootlink/\">rootlink</a>"
                        "<span class=\"detail\">\u2192 / \u00b7 outside selected root</span>"),
              std::string::npos);
    EXPECT_NE(text.find("<a href=\"/__tovel/inner/\">inner</a><span class=\"detail\">\u2192 "
                        "real</span>"),
              std::string::npos);
}

TEST_F(Pages, BreadcrumbsAndEmptyFolder) {
    ASSERT_EQ(::mkdir((dir_.path() + "/a").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((dir_.path() + "/a/b").c_str(), 0755), 0);
    std::string text = page("/a/b/");
    EXPECT_NE(text.find("<nav class=\"crumbs\"><a href=\"/__tovel/\">~</a><span "
                        "class=\"slash\">/</span><a href=\"/__tovel/a/\">a</a><span "
                        "class=\"slash\">/</span><a href=\"/__tovel/a/b/\">b</a></nav>"),
              std::string::npos);
    EXPECT_NE(text.find("<tr><td colspan=\"4\" class=\"empty\">This folder is empty.</td></tr>"
                        "</tbody></table></section>"),
              std::string::npos);
    EXPECT_EQ(text.rfind("</main></body></html>"), text.size() - 21);
}

TEST_F(Pages, QueryIsDecodedEscapedAndTurnsThePageIntoResults) {
    dir_.writeFile("Alpha Beta.txt", "x");
    std::string text = page("/", HiddenFiles::Hidden, "alpha+b%65ta%22");
    EXPECT_NE(text.find("value=\"alpha beta&quot;\""), std::string::npos);
    EXPECT_NE(text.find("<h2 class=\"search-title\">Search results</h2>"), std::string::npos);
    std::string found = page("/", HiddenFiles::Hidden, "ALPHA+beta");
    EXPECT_NE(found.find("<tr><td class=\"kind\">\u2315</td><td class=\"name\"><a "
                         "href=\"/Alpha%20Beta.txt\">Alpha Beta.txt</a></td><td>file name</td>"
                         "</tr>"),
              std::string::npos);
    EXPECT_EQ(note(found), "1 result; scanned 1 files and 0 MiB.");
}

TEST_F(Pages, SearchStopsAtTwoHundredRows) {
    for (int i = 0; i < 300; ++i)
        dir_.writeFile("m/match" + std::to_string(i), "");
    std::string text = search("match");
    EXPECT_EQ(rows(text), 200);
    EXPECT_NE(note(text).find(" Search stopped at its safety limit; narrow the folder or query for "
                              "more."),
              std::string::npos);
}

TEST_F(Pages, SearchSkipsWhatItMustAndFindsAcrossReads) {
    dir_.writeFile("big-needle.txt", std::string(3 * 1048576, 'a'));
    dir_.writeFile("node_modules/needle", "");
    dir_.writeFile(".git/needle", "");
    dir_.writeFile("Node_Modules/needle-inside", "");
    dir_.writeFile(".bashrc", "needle");
    dir_.writeFile(".ssh/config", "needle");
    dir_.writeFile("binary.dat", std::string("\0needle", 7));
    dir_.writeFile("straddle.txt", std::string(65536 - 3, 'x') + "NEEDLE");
    std::string text = search("needle");
    EXPECT_EQ(text.find("big-needle"), std::string::npos);
    EXPECT_EQ(text.find("node_modules"), std::string::npos);
    EXPECT_EQ(text.find(".git"), std::string::npos);
    EXPECT_EQ(text.find("bashrc"), std::string::npos);
    EXPECT_EQ(text.find("binary.dat"), std::string::npos);
    EXPECT_NE(text.find(">Node_Modules/needle-inside</a></td><td>file name<"), std::string::npos);
    EXPECT_NE(text.find(">straddle.txt</a></td><td>file contents<"), std::string::npos);
    // The 3 MiB file is counted but its bytes are not.
    EXPECT_EQ(note(text), "2 results; scanned 4 files and 0 MiB.");

    std::string shown = search("needle", HiddenFiles::Shown);
    EXPECT_NE(shown.find(">.bashrc</a></td><td>file contents<"), std::string::npos);
    EXPECT_EQ(shown.find(".ssh"), std::string::npos);
}

TEST_F(Pages, SearchWithoutMatchesAndFolderResults) {
    dir_.writeFile("Needles/x", "");
    std::string text = search("needle");
    EXPECT_NE(text.find("<a href=\"/__tovel/Needles/\">Needles</a></td><td>folder name<"),
              std::string::npos);
    std::string none = search("zzz");
    EXPECT_NE(none.find("<tr><td colspan=\"3\" class=\"empty\">No matches found.</td></tr>"),
              std::string::npos);
    EXPECT_EQ(note(none), "0 results; scanned 1 files and 0 MiB.");
}

} // namespace
} // namespace tovel::serve
