#include "korvan/web/static_files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <vector>

namespace tarvik::korvan::web {
namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

bool EndsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

}  // namespace

std::optional<std::string> SafeRelativePath(std::string_view target) {
  const size_t cut = target.find_first_of("?#");
  if (cut != std::string_view::npos)
    target = target.substr(0, cut);
  if (target.empty() || target[0] != '/')
    return std::nullopt;
  std::string decoded;
  decoded.reserve(target.size());
  for (size_t i = 0; i < target.size(); ++i) {
    char c = target[i];
    if (c == '%') {
      if (i + 2 >= target.size())
        return std::nullopt;
      const int hi = HexValue(target[i + 1]);
      const int lo = HexValue(target[i + 2]);
      if (hi < 0 || lo < 0)
        return std::nullopt;
      c = static_cast<char>(hi * 16 + lo);
      i += 2;
    }
    // A backslash is a separator to some file systems and a NUL ends a C path early.
    if (c == '\0' || c == '\\')
      return std::nullopt;
    decoded.push_back(c);
  }
  std::vector<std::string> parts;
  size_t start = 1;
  while (start <= decoded.size()) {
    size_t end = decoded.find('/', start);
    if (end == std::string::npos)
      end = decoded.size();
    std::string part = decoded.substr(start, end - start);
    if (part == "..")
      return std::nullopt;
    if (!part.empty() && part != ".")
      parts.push_back(std::move(part));
    start = end + 1;
  }
  std::string path;
  for (const auto& p : parts) {
    if (!path.empty())
      path += '/';
    path += p;
  }
  if (path.empty() || decoded.back() == '/')
    path += path.empty() ? "index.html" : "/index.html";
  return path;
}

std::string ContentType(std::string_view path) {
  static const std::pair<const char*, const char*> kTypes[] = {
      {".html", "text/html; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".mjs", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".json", "application/json"},
      {".map", "application/json"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".ico", "image/x-icon"},
      {".woff2", "font/woff2"},
      {".txt", "text/plain; charset=utf-8"},
  };
  for (const auto& [ext, type] : kTypes)
    if (EndsWith(path, ext))
      return type;
  return "application/octet-stream";
}

StaticResponse ServeStatic(const std::string& root, std::string_view method,
                           std::string_view target) {
  StaticResponse response;
  if (method != "GET" && method != "HEAD") {
    response.status = 405;
    response.body = "method not allowed\n";
    return response;
  }
  auto relative = SafeRelativePath(target);
  if (!relative) {
    response.status = 400;
    response.body = "bad path\n";
    return response;
  }
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::path base = fs::canonical(root, ec);
  if (ec) {
    response.status = 404;
    response.body = "the page is not installed\n";
    return response;
  }
  // A symbolic link inside the folder must not lead out of it either.
  const fs::path file = fs::canonical(base / *relative, ec);
  const std::string base_text = base.string() + "/";
  if (ec || file.string().compare(0, base_text.size(), base_text) != 0 ||
      !fs::is_regular_file(file, ec)) {
    response.body = "not found\n";
    return response;
  }
  std::ifstream in(file, std::ios::binary);
  std::ostringstream body;
  body << in.rdbuf();
  if (!in) {
    response.status = 500;
    response.body = "cannot read file\n";
    return response;
  }
  response.status = 200;
  response.content_type = ContentType(file.string());
  if (method == "GET")
    response.body = body.str();
  return response;
}

std::string FindPageDir() {
  namespace fs = std::filesystem;
  std::vector<fs::path> candidates;
  if (const char* env = std::getenv("KORVAN_WEB_DIR"); env != nullptr && *env != '\0')
    candidates.emplace_back(env);
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (!ec)
    candidates.push_back(exe.parent_path().parent_path() / "share" / "korvan" / "web");
#ifdef KORVAN_WEB_BUILD_PAGE_DIR
  candidates.emplace_back(KORVAN_WEB_BUILD_PAGE_DIR);
#endif
  for (const auto& dir : candidates)
    if (fs::is_regular_file(dir / "index.html", ec))
      return dir.string();
  return "";
}

}  // namespace tarvik::korvan::web
