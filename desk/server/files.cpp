// The files that the desk serves: its own page, the scripts for pages, and the example.

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "base/files.h"
#include "base/paths.h"
#include "server/desk.h"

namespace desk {
namespace {

// For each HTML page, the example included: files and requests only of this desk, but WebSockets of any host and images
// also from data: URLs; no page may frame it.
constexpr char kPolicy[] =
    "default-src 'self'; connect-src 'self' ws:; img-src 'self' data:; object-src 'self'; "
    "base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'";

using TypeRow = std::pair<std::string_view, std::string_view>;  // of a file name's extension
constexpr std::array<TypeRow, 8> kTypes{{{".html", "text/html; charset=utf-8"},
                                         {".js", "text/javascript; charset=utf-8"},
                                         {".css", "text/css; charset=utf-8"},
                                         {".svg", "image/svg+xml"},
                                         {".png", "image/png"},
                                         {".json", "application/json"},
                                         {".ts", "text/plain; charset=utf-8"},
                                         {".md", "text/plain; charset=utf-8"}}};

using Fields = std::vector<HeaderField>;

// Whether the name stays below its folder.
bool IsInside(const std::string& name) {
  const std::filesystem::path path(name);
  return name.find('\0') == std::string::npos && path.is_relative() &&
         std::ranges::none_of(path, [](const auto& part) { return part == ".." || part == "."; });
}

Answer Serve(const HttpRequest& request, const std::filesystem::path& folder, const std::string& name) {
  const std::filesystem::path file = folder / name;
  const std::string extension = file.extension();
  const auto* const row = std::ranges::find(kTypes, extension, &TypeRow::first);
  auto content = row != kTypes.end() && IsInside(name) ? ReadFile(file) : vconf::Status(vconf::Code::kMissing, name);
  if (!content.ok()) {
    return Fail(404, "there is nothing at " + request.path);
  }
  return {.body = *std::move(content),
          .type = row->second,
          .fields = extension == ".html" ? Fields{{"Content-Security-Policy", kPolicy}}
                    : extension == ".js" ? Fields{{"Cross-Origin-Resource-Policy", "cross-origin"}}
                                         : Fields{}};
}

// The example's script tag names the default address. Replaces that, so that desk.js is loaded from this desk, with the
// token of the request.
Answer ServeExample(const HttpRequest& request, const std::filesystem::path& folder) {
  constexpr std::string_view kUsual = "http://localhost:8480/desk.js";
  const std::string token(request.Query("token"));
  const bool is_token = !token.empty() && std::ranges::all_of(token, [](unsigned char c) { return std::isalnum(c); });
  Answer answer = Serve(request, folder, "index.html");
  if (const std::size_t at = answer.body.find(kUsual); at != std::string::npos) {
    answer.body.replace(at, kUsual.size(), is_token ? "/desk.js?token=" + token : "/desk.js");
  }
  return answer;
}

}  // namespace

void AddFiles(Router& router) {
  const std::filesystem::path web = WebFolder();
  const std::filesystem::path page = web.parent_path() / "page";
  const std::filesystem::path example = web.parent_path() / "example";
  using Request = const HttpRequest&;
  router.Get("/", [web](Request request) { return Serve(request, web, "index.html"); });
  router.Get("/mirado.js", [page](Request request) { return Serve(request, page, "mirado.js"); });
  router.Get("/mirado.classic.js", [page](Request request) { return Serve(request, page, "mirado.classic.js"); });
  router.Get("/example/", [example](Request request) { return ServeExample(request, example); });
  router.Get("/example/**", [example](Request request) { return Serve(request, example, request.parts[0]); });
  router.Get("/*", [web](Request request) { return Serve(request, web, request.parts[0]); });
}

}  // namespace desk
