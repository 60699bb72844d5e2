#include "console/MetricsText.h"

#include <cmath>
#include <cstdio>

namespace {

// Backslash and line feed in help texts; the double quote too in label values.
std::string escaped(const std::string& text, bool label_value) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '"' && label_value) {
      out += "\\\"";
    } else {
      out += c;
    }
  }
  return out;
}

std::string number(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  char text[64];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

}  // namespace

std::string metrics_text(const std::vector<MetricFamily>& families) {
  std::string out;
  for (const MetricFamily& family : families) {
    out += "# HELP " + family.name + " " + escaped(family.help, false) + "\n";
    out += "# TYPE " + family.name + " " + family.type + "\n";
    for (const MetricSample& sample : family.samples) {
      out += family.name;
      if (!sample.labels.empty()) {
        out += '{';
        for (std::size_t i = 0; i < sample.labels.size(); ++i) {
          if (i > 0) out += ',';
          out += sample.labels[i].first + "=\"" + escaped(sample.labels[i].second, true) + "\"";
        }
        out += '}';
      }
      // Appended piece by piece: GCC 12 warns (-Wrestrict, wrongly) on a
      // temporary built from a literal and a string here in optimised builds.
      out += ' ';
      out += number(sample.value);
      out += '\n';
    }
  }
  return out;
}
