// The demo's HTML report opened in a real headless Chromium: the page loads without a console
// message, and every picture has a size on the page and something drawn in it. A harness page
// beside the report holds it in an iframe, measures each svg and writes the numbers into its own
// DOM, which Chromium prints (--dump-dom).
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "run_tool.h"
#include "support/csv.h"  // DataDir()

namespace {

const char* const kChromium = "/usr/bin/chromium";

const char* const kHarness = R"(<!DOCTYPE html><html><head><meta charset="utf-8"></head><body>
<iframe id="report" src="report.html" style="width:1200px;height:900px"></iframe>
<pre id="result">pending</pre>
<script>
document.getElementById('report').addEventListener('load', function () {
  var doc = this.contentDocument, lines = [];
  if (!doc) {
    lines.push('NOACCESS');
  } else {
    var svgs = doc.querySelectorAll('svg');
    lines.push('SVGS ' + svgs.length);
    for (var i = 0; i < svgs.length; ++i) {
      var box = svgs[i].getBoundingClientRect(), drawn = svgs[i].getBBox();
      lines.push('SVG ' + box.width + ' ' + box.height + ' ' + drawn.width + ' ' + drawn.height);
    }
  }
  document.getElementById('result').textContent = lines.join('\n') + '\nEND';
});
</script></body></html>
)";

int Count(const std::string& text, const std::string& what) {
  int n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(ReportInBrowser, LoadsCleanlyAndEveryPictureHasABox) {
  if (!std::filesystem::exists(kChromium)) {
    GTEST_SKIP() << kChromium << " is not installed (scripts/bootstrap.sh installs it)";
  }
  ScratchDir dir("browser");
  const ToolRun demo = RunTool({"demo", "--data", DataDir(), "--report", dir / "report.html"});
  ASSERT_EQ(demo.exit_code, 0) << demo.err;
  EXPECT_NE(demo.out.find("Report: " + dir / "report.html"), std::string::npos);
  std::ifstream in(dir / "report.html");
  const std::string html((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const int pictures = Count(html, "<svg ");
  ASSERT_GE(pictures, 10);  // scores, loadings, bars, dendrogram, observed/fitted, charts

  WriteText(dir / "harness.html", kHarness);
  const ToolRun browser = RunProgram(
      {kChromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
       "--disable-background-networking", "--disable-component-update", "--disable-sync",
       "--user-data-dir=" + dir / "profile", "--allow-file-access-from-files",
       "--virtual-time-budget=15000", "--enable-logging=stderr", "--v=0", "--dump-dom",
       "file://" + dir / "harness.html"},
      120);
  ASSERT_EQ(browser.exit_code, 0) << browser.err;
  // Every console message (an error, a failed resource) is a line tagged CONSOLE.
  std::istringstream log(browser.err);
  for (std::string line; std::getline(log, line);) {
    EXPECT_EQ(line.find("CONSOLE"), std::string::npos) << line;
  }
  const std::size_t begin = browser.out.find("<pre id=\"result\">");
  const std::size_t end = browser.out.find("END", begin);
  ASSERT_NE(begin, std::string::npos);
  ASSERT_NE(end, std::string::npos) << "the harness did not finish: " << browser.out;
  std::istringstream result(browser.out.substr(begin + 17, end - begin - 17));
  std::string word;
  int count = -1;
  result >> word >> count;
  ASSERT_EQ(word, "SVGS");
  EXPECT_EQ(count, pictures);
  for (int k = 0; k < count; ++k) {
    double width = 0, height = 0, drawn_width = 0, drawn_height = 0;
    result >> word >> width >> height >> drawn_width >> drawn_height;
    SCOPED_TRACE("picture " + std::to_string(k + 1));
    EXPECT_EQ(word, "SVG");
    EXPECT_GT(width, 100);
    EXPECT_GT(height, 100);
    EXPECT_GT(drawn_width, 0.5 * width);  // axes, frame and data span the picture
    EXPECT_GT(drawn_height, 0.5 * height);
  }
}

}  // namespace
