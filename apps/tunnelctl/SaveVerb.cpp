#include <algorithm>
#include <iterator>
#include <ostream>
#include <sstream>

#include "Hivel/Exception.h"
#include "Kop/Exception.h"
#include "apps/tunnelctl/File.h"
#include "apps/tunnelctl/Session.h"
#include "apps/tunnelctl/State.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

namespace {

// What operators decide. Other types hold what agents and hardware found out, or requests,
// which are not to be made again.
constexpr std::string_view configurationTypes[] = {
    "Tunnel::Decap::ConfigInput",
    "Tunnel::MplsTunnelConfig",
    "Tunnel::Static::Config",
    "Tunnel::NexthopGroup::ConfigInput",
    "Tunnel::L3TunnelInfoTable",
    "Tunnel::GreTunnelInfoTable",
    "Tunnel::IpsecGreTunnelInfoTable",
    "Tunnel::IpsecVtiTunnelInfoTable",
    "LinuxTunnel::VxlanTunnelInfoTable",
};

bool isConfiguration(std::string_view type) {
  return std::find(std::begin(configurationTypes), std::end(configurationTypes), type) !=
         std::end(configurationTypes);
}

// Paths of which something is wanted; a prefix without any path is a mistake of its author.
class Prefixes {
 public:
  explicit Prefixes(const std::vector<std::string>& texts) {
    for (const std::string& text : texts)
      all_.push_back({readPrefix(text), false, false});
  }
  bool empty() const { return all_.empty(); }
  // Whether one of them covers the path.
  bool cover(std::string_view path, bool isWanted) {
    bool found = false;
    for (Prefix& prefix : all_) {
      if (!Hivel::isCovered(path, prefix.text)) continue;
      prefix.isThere = found = true;
      prefix.isUsed |= isWanted;
    }
    return found;
  }
  void needAllUsed() const {
    for (const Prefix& prefix : all_) {
      if (prefix.isUsed) continue;
      const std::string path = "PATH '" + prefix.text + "': ";
      throw Failure(path + (prefix.isThere ? "holds no configuration; --also or --all "
                                             "saves what it holds"
                                           : "nothing is mounted there"));
    }
  }

 private:
  struct Prefix {
    std::string text;
    bool isThere, isUsed;
  };
  std::vector<Prefix> all_;
};

std::vector<Hivel::PathInfo> wanted(Session& session, const SaveOptions& options) {
  Prefixes only(options.prefixes), also(options.also);
  std::vector<Hivel::PathInfo> paths;
  for (Hivel::PathInfo& info : session.paths("")) {
    const bool isAlso = also.cover(info.path, true);
    const bool isKind = options.all || isConfiguration(info.type);
    const bool isPlace = only.cover(info.path, isKind || isAlso) || only.empty();
    if (isAlso || (isKind && isPlace)) paths.push_back(std::move(info));
  }
  only.needAllUsed();
  also.needAllUsed();
  return paths;
}

}  // namespace

int save(const Context& context, const SaveOptions& options) {
  std::ostringstream text;
  std::size_t count = 0;
  try {
    Session session(context);
    std::vector<Hivel::Mount*> mounts;
    for (const Hivel::PathInfo& info : wanted(session, options)) {
      Hivel::MountOptions mount;
      mount.type = info.type;
      mount.waits = false;
      mounts.push_back(&session.client().mount(info.path, Hivel::Mode::read, mount));
    }
    session.settle(mounts);
    const Style style{.json = true, .pretty = true};
    JsonArray records(text, style);
    for (const Hivel::Mount* mount : mounts)
      records.push(stateOf(mount->path(), *mount->entity()));
    records.finish();
    count = mounts.size();
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }

  if (options.file.empty() || options.file == "-") {
    context.out << text.view();
    return 0;
  }
  replaceFile(options.file, text.view());
  const U64 bytes = text.view().size();
  if (context.style.json) {
    Json report = Json::object();
    report.add("file", Json::string(options.file));
    report.add("paths", Json::number(U64{count}));
    report.add("bytes", Json::number(bytes));
    printJson(context.out, context.style, Json(Json::array().push(std::move(report))));
  } else {
    context.out << count << (count == 1 ? " path, " : " paths, ") << bytes
                << " bytes saved to " << printable(options.file) << '\n';
  }
  return 0;
}

}  // namespace Tunnelctl
