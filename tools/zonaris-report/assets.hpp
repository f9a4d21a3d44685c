#pragma once

#include <string_view>

/// What the page carries inline, embedded at build time (embed.cmake): Debian's Leaflet and
/// Chart.js, and the page's own template, style and script from this folder.
namespace zonaris::report_tool::assets {

extern const std::string_view leafletJs;
extern const std::string_view leafletCss;
extern const std::string_view chartJs;
extern const std::string_view pageHtml;  ///< the template, with @@NAME@@ marks
extern const std::string_view pageCss;
extern const std::string_view pageJs;

}  // namespace zonaris::report_tool::assets
