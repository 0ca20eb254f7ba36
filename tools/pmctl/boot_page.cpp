#include "tools/pmctl/boot_page.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "base/xml_text.h"
#include "tools/pmctl/boot_page_parts.h"
#include "tools/pmctl/words.h"

namespace PmCtl {
namespace {

using ProcMgr::XmlText;

// Pixels.
constexpr int kRowHeight = 18;
constexpr int kAxisHeight = 22;
constexpr int kPictureWidth = 1200;

// All places along the axis of time are parts of its length, so that the page can stretch it.
std::string Percent(double part) {
  char text[32];
  (void)std::snprintf(text, sizeof(text), "%.4f%%", 100 * part);
  return text;
}

std::string Number(double value) {
  char text[32];
  (void)std::snprintf(text, sizeof(text), "%.6g", value);
  return text;
}

class Drawing {
 public:
  // The axis goes a little beyond the end, so that the last bar is seen to end.
  explicit Drawing(const BootTimeline& boot) : boot_(boot), length_(boot.end * 1.02 + 0.001) {}

  [[nodiscard]] int Height() const { return static_cast<int>(boot_.rows.size()) * kRowHeight; }

  // The lines of the axis, `height` pixels long, and its numbers at their top if `hasNumbers`.
  // Steps of up to three sizes: the page shows the finer ones when there is room for them.
  [[nodiscard]] std::string Axis(int height, bool hasNumbers, int sizes) const {
    const double coarse = Step();
    std::string text;
    const auto count = static_cast<int>(length_ / coarse * kFiner * kFiner);
    for (int i = 0; i <= count; ++i) {
      const int level = i % (kFiner * kFiner) == 0 ? 1 : i % kFiner == 0 ? 2 : 3;
      if (level > sizes) {
        continue;
      }
      const double time = coarse * i / (kFiner * kFiner);
      const std::string x = Percent(time / length_);
      text += GridLine(level, x, height);
      if (hasNumbers) {
        text += AxisNumber(level, x, time);
      }
    }
    return text + "\n";
  }

  [[nodiscard]] std::string Rows() const {
    std::string text;
    int y = 0;
    for (const BootRow& row : boot_.rows) {
      text += "<g class=\"row\" data-name=\"" + XmlText(row.name) + "\" transform=\"translate(0," +
              std::to_string(y) + ")\"><title>" + XmlText(Numbers(row)) +
              "</title><rect class=\"whole\" width=\"100%\" height=\"" +
              std::to_string(kRowHeight) + "\"/>";
      for (const BootSpan& span : row.spans) {
        text += Bar(span);
      }
      text += Label(row) + "</g>\n";
      y += kRowHeight;
    }
    return text;
  }

  [[nodiscard]] std::string Heading() const {
    return std::to_string(boot_.rows.size()) + " rows, " + OneDecimal(boot_.end) + " ms" +
           (boot_.isOver            ? ""
            : boot_.awaited.empty() ? ", going on"
                                    : ", waiting for " + boot_.awaited);
  }

 private:
  static constexpr int kFiner = 5;

  static std::string GridLine(int level, const std::string& x, int height) {
    return "<line class=\"grid t" + std::to_string(level) + "\" x1=\"" + x + "\" x2=\"" + x +
           "\" y1=\"0\" y2=\"" + std::to_string(height) + "\"/>";
  }

  static std::string AxisNumber(int level, const std::string& x, double time) {
    return "<text class=\"t" + std::to_string(level) + "\" x=\"" + x + "\" dx=\"3\" y=\"14\">" +
           Number(time) + (time == 0 ? " ms" : "") + "</text>";
  }

  // Between two coarse lines: 1, 2 or 5 times a power of ten, for eight lines or so.
  [[nodiscard]] double Step() const {
    const double wanted = length_ / 8;
    const double power = std::pow(10, std::floor(std::log10(wanted)));
    for (const double step : {1.0, 2.0, 5.0}) {
      if (step * power >= wanted) {
        return step * power;
      }
    }
    return 10 * power;
  }

  // The opening of the channel goes on beside the rest, so its bar is a thin one.
  [[nodiscard]] std::string Bar(const BootSpan& span) const {
    const bool isThin = span.phase == "open";
    return "<rect class=\"" + XmlText(span.phase) + (span.isCritical ? " critical" : "") +
           (span.isOver ? "" : " pending") + "\" x=\"" + Percent(span.begin / length_) + "\" y=\"" +
           (isThin ? "13" : "3") + "\" width=\"" + Percent(span.Length() / length_) +
           "\" height=\"" + (isThin ? "3" : "10") + "\"/>";
  }

  // Behind the bars, before them where there is no room behind, and else upon them.
  [[nodiscard]] std::string Label(const BootRow& row) const {
    constexpr double kRoom = 0.3;
    const double begin = row.Begin() / length_;
    const double end = row.End() / length_;
    const bool isBehind = end < 1 - kRoom;
    const bool isBefore = !isBehind && begin > kRoom;
    return "<text x=\"" + Percent(isBehind ? end : begin) + "\" dx=\"" +
           (isBefore ? "-5\" text-anchor=\"end" : "5") + "\" y=\"13\">" + XmlText(row.name) +
           "</text>";
  }

  static std::string Numbers(const BootRow& row) {
    std::string text =
        row.name + ": from " + OneDecimal(row.Begin()) + " to " + OneDecimal(row.End()) + " ms";
    for (const BootSpan& span : row.spans) {
      text += ", " + span.phase + " " + OneDecimal(span.Length()) + " ms" +
              (span.isOver ? "" : " and going on") + (span.isCritical ? " (critical)" : "");
    }
    return text;
  }

  const BootTimeline& boot_;
  const double length_;  // Of the axis, in milliseconds.
};

std::string Legend() {
  std::string text;
  for (const char* phase : {"checks", "fork", "ready", "open"}) {
    text += std::string("<tspan class=\"") + phase + "\">\u25a0</tspan> " + phase + "  ";
  }
  return text +
         "<tspan class=\"init\">\u25a0</tspan> manager  <tspan class=\"chain\">"
         "\u25a1</tspan> critical chain";
}

}  // namespace

std::string BootSvg(const BootTimeline& boot) {
  const Drawing drawing(boot);
  const int height = drawing.Height() + 2 * kAxisHeight;
  const std::string size =
      "width=\"" + std::to_string(kPictureWidth) + "\" height=\"" + std::to_string(height) + "\"";
  return "<svg xmlns=\"http://www.w3.org/2000/svg\" " + size + " color=\"black\">\n<style>" +
         kDrawingStyle + "</style>\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n" +
         "<text x=\"3\" y=\"14\">" + XmlText(drawing.Heading()) + "  " + Legend() +
         "</text>\n<svg y=\"" + std::to_string(kAxisHeight) + "\" " + size + ">" +
         drawing.Axis(height, true, 1) + "<svg y=\"" + std::to_string(kAxisHeight) + "\" " + size +
         ">\n" + drawing.Rows() + "</svg></svg></svg>\n";
}

std::string BootPage(const BootTimeline& boot) {
  const Drawing drawing(boot);
  const auto svg = [](const char* id, int height, const std::string& inside) {
    return std::string("<svg id=\"") + id + "\" height=\"" + std::to_string(height) + "\">" +
           inside + "</svg>\n";
  };
  return kPageHead + ("<style>" + std::string(kDrawingStyle)) + kPageStyle +
         "</style>\n</head><body>\n<header><span id=\"heading\">" + XmlText(drawing.Heading()) +
         "</span>" + kPageControls +
         svg("legend", kAxisHeight, "<text y=\"14\">" + Legend() + "</text>") +
         "</header>\n<div id=\"box\"><div id=\"inner\" class=\"coarse\">\n" +
         svg("axis", kAxisHeight, drawing.Axis(kAxisHeight, true, 3)) +
         svg("rows", drawing.Height(),
             "<svg id=\"grid\">" + drawing.Axis(drawing.Height(), false, 3) + "</svg>" +
                 drawing.Rows()) +
         "</div></div>\n<div id=\"tip\" hidden></div>\n<script>" + kPageScript +
         "</script>\n</body></html>\n";
}

}  // namespace PmCtl
