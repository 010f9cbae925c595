#pragma once
// The report page's style sheet and script, inlined into every page.

namespace report_page
{

extern const char* const kPageScript;
extern const char* const kPageStyle;

} // namespace report_page
