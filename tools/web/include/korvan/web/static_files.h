// Serving the built page: maps a request target onto a file under one folder. Request targets
// are untrusted; nothing outside the folder is ever read. Callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvik::korvan::web {

// The file a request target names, relative to the page folder ("/" and folders map to their
// index.html), or nothing when the target is malformed or climbs out of the folder. Query and
// fragment are ignored; percent-escapes are decoded first.
std::optional<std::string> SafeRelativePath(std::string_view target);

// Content-Type for a file name, by extension.
std::string ContentType(std::string_view path);

struct StaticResponse {
  int status = 404;
  std::string content_type = "text/plain; charset=utf-8";
  std::string body;
};

// The answer to `method target` for the page held in `root`. Files are read on each request:
// the page is small and a rebuilt page shows without a restart.
StaticResponse ServeStatic(const std::string& root, std::string_view method,
                           std::string_view target);

// Where the built page is, for ServerOptions::static_dir: $KORVAN_WEB_DIR if set, else the
// installed copy next to the running program (<prefix>/bin/../share/korvan/web), else the
// page of the build tree this library was built in. Empty when none holds an index.html.
std::string FindPageDir();

}  // namespace tarvik::korvan::web
