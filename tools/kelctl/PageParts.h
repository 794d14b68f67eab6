#pragma once

namespace kel {
namespace ctl {

// page.html, with "{{NAME}}" where something is put, page.css and page.js.
extern const char kPage[];
extern const char kPageStyle[];
extern const char kPageScript[];

} // namespace ctl
} // namespace kel
