// The page of a boot, in a browser.
#include "tools/pmctl/boot_page.h"

#include <nlohmann/json.hpp>

#include "tests/support/test.h"

namespace PmCtl {
namespace {

using nlohmann::json;

constexpr const char* kHostile = "<script>fail()</script>&\"'";

BootTimeline Boot(int services) {
  BootTimeline boot;
  boot.end = services;
  for (int i = 0; i < services; ++i) {
    boot.rows.push_back(
        {i == 1 ? kHostile : "service" + std::to_string(i),
         {{"fork", i * 1.0, i + 0.25, true, true}, {"ready", i + 0.25, i + 1.0, i != 2, false}}});
  }
  return boot;
}

// Collects what goes wrong from the first moment on.
constexpr const char* kListen = R"(<script>
const faults = [];
addEventListener('error', event => faults.push(event.message || 'not fetched'), true);
addEventListener('securitypolicyviolation', event => faults.push('fetched ' + event.blockedURI));
</script>)";

// Uses the page as a person does, and leaves in its place what it has shown.
constexpr const char* kUse = R"(<script>
const shown = () => rows.filter(row => row.getBoundingClientRect().height > 0).map(row => row.dataset.name);
const result = {all: shown().length, wide: document.documentElement.scrollWidth - innerWidth};
search.value = WANTED;
search.dispatchEvent(new Event('input'));
result.found = shown();
const place = rows.find(row => row.style.display !== 'none').querySelector('.whole').getBoundingClientRect();
const at = {bubbles: true, clientX: place.left + place.width / 2, clientY: place.top + place.height / 2};
document.elementFromPoint(at.clientX, at.clientY).dispatchEvent(new PointerEvent('pointerover', at));
result.tip = tip.hidden ? null : tip.textContent;
by('in').click();
result.zoomed = inner.clientWidth / box.clientWidth;
result.fetched = performance.getEntriesByType('resource').map(entry => entry.name);
result.faults = faults;
document.body.textContent = 'RESULT' + JSON.stringify(result).replace(/[<>&]/g,
    c => '\\u00' + c.charCodeAt(0).toString(16)) + 'END';
</script>)";

class BootPageTest : public ::testing::Test {
 protected:
  // What the browser has made of the file.
  std::string Render(const std::string& path, const std::string& size) const {
    const std::string command =
        "timeout 100 chromium --headless --no-sandbox --disable-gpu --disable-dev-shm-usage "
        "--no-first-run --disable-background-networking --disable-component-update --disable-sync "
        "--user-data-dir=" +
        folder_.Path("profile") + " --window-size=" + size + " --dump-dom file://" + path +
        " 2>/dev/null";
    FILE* const pipe = popen(command.c_str(), "re");
    std::string output;
    std::array<char, 65536> block{};
    for (std::size_t n = 1; n > 0;) {
      n = fread(block.data(), 1, block.size(), pipe);
      output.append(block.data(), n);
    }
    EXPECT_EQ(pclose(pipe), 0) << "is chromium installed?";
    return output;
  }

  json Use(const BootTimeline& boot, const std::string& size, const std::string& wanted) const {
    std::string page = BootPage(boot);
    std::string use = kUse;
    use.replace(use.find("WANTED"), 6, json(wanted).dump());
    page.insert(page.find("<meta name"), kListen);
    page.insert(page.find("</body>"), use);
    const std::string text = Render(folder_.Write("boot.html", page), size);
    const std::size_t begin = text.rfind("RESULT{") + 6;
    return json::parse(text.substr(begin, text.rfind("END") - begin), nullptr, false);
  }

  const PmTest::TempFolder folder_;
};

TEST_F(BootPageTest, IsSearchedZoomedAndPointedAt) {
  const struct {
    int services;
    const char* size;
    const char* wanted;
    std::vector<std::string> found;
    const char* tip;
  } cases[] = {
      // As narrow as a phone, or as this browser gets.
      {3,
       "390,800",
       "VICE2",
       {"service2"},
       "service2: from 2.0 to 3.0 ms, fork 0.2 ms (critical), ready 0.8 ms and going on"},
      {1000,
       "1200,800",
       "<script>",
       {kHostile},
       "<script>fail()</script>&\"': from 1.0 to 2.0 ms, fork 0.2 ms (critical), ready 0.8 ms"},
  };
  for (const auto& c : cases) {
    const json result = Use(Boot(c.services), c.size, c.wanted);
    ASSERT_TRUE(result.is_object()) << c.services;
    EXPECT_EQ(result.at("all"), c.services);
    EXPECT_LE(result.at("wide"), 0);
    EXPECT_EQ(result.at("found"), c.found);
    EXPECT_EQ(result.at("tip"), c.tip);
    EXPECT_EQ(result.at("zoomed"), 2);
    EXPECT_EQ(result.at("fetched"), json::array());
    EXPECT_EQ(result.at("faults"), json::array());
  }
}

TEST_F(BootPageTest, PictureIsWellFormed) {
  const std::string text = Render(folder_.Write("boot.svg", BootSvg(Boot(3))), "1200,800");
  EXPECT_NE(text.find("&lt;script&gt;fail()"), std::string::npos);
  EXPECT_EQ(text.find("parsererror"), std::string::npos);
}

}  // namespace
}  // namespace PmCtl
