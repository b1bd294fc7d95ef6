#include "apps/tunnelgen/GraphMl.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <optional>
#include <unordered_map>

#include <fcntl.h>
#include <unistd.h>

#include <pugixml.hpp>

namespace Tunnelgen {

namespace {

constexpr std::size_t maxFileSize = 256 << 20;  // bytes

using pugi::xml_node;

std::string_view localName(const xml_node& node) {
  const std::string_view name = node.name();
  const std::size_t colon = name.rfind(':');
  return colon == name.npos ? name : name.substr(colon + 1);
}

std::string_view trimmed(std::string_view text) {
  constexpr const char* blanks = " \t\r\n";
  const std::size_t from = text.find_first_not_of(blanks);
  if (from == text.npos) return {};
  return text.substr(from, text.find_last_not_of(blanks) - from + 1);
}

// A value as an error shows it: short, and nothing that moves the cursor.
std::string shown(std::string_view text) {
  std::string result = "'";
  for (const char c : text.substr(0, 40))
    result += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  return result + (text.size() > 40 ? "..." : "") + "'";
}

enum class Use : U8 { nothing, label, latitude, longitude };
constexpr const char* useNames[] = {"", "label", "latitude", "longitude"};

Use useOf(std::string name) {
  for (char& c : name)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  static const std::map<std::string, Use> uses = {
      {"label",     Use::label    },
      {"name",      Use::label    },
      {"latitude",  Use::latitude },
      {"lat",       Use::latitude },
      {"longitude", Use::longitude},
      {"lon",       Use::longitude},
      {"long",      Use::longitude},
      {"lng",       Use::longitude}
  };
  const auto at = uses.find(name);
  return at == uses.end() ? Use::nothing : at->second;
}

class Reader {
 public:
  Reader(std::string_view text, const std::string& file) : text_(text), file_(file) {}

  Topology read() {
    const pugi::xml_parse_result result = document_.load_buffer(
        text_.data(), text_.size(), pugi::parse_default | pugi::parse_declaration,
        pugi::encoding_utf8);
    if (!result) fail(result.offset, std::string("not XML: ") + result.description());
    for (const xml_node& node : document_)
      if (node.type() == pugi::node_declaration)
        needUtf8(node, node.attribute("encoding").value());

    const xml_node root = document_.document_element();
    if (localName(root) != "graphml") fail(root, "expected graphml as the root element");
    xml_node graph;
    for (const xml_node& node : root) {
      if (localName(node) == "key") {
        readKey(node);
      } else if (localName(node) == "graph") {
        if (graph) fail(node, "a second graph; there must be one");
        graph = node;
      }
    }
    if (!graph) fail(root, "no graph in it");
    readGraph(graph);
    topology_.finish(file_);
    return std::move(topology_);
  }

 private:
  [[noreturn]] void fail(std::ptrdiff_t offset, const std::string& what) const {
    const auto end = static_cast<std::size_t>(
        std::clamp<std::ptrdiff_t>(offset, 0, static_cast<std::ptrdiff_t>(text_.size())));
    const auto line = 1 + std::count(text_.begin(), text_.begin() + end, '\n');
    throw Failure(file_ + ":" + std::to_string(line) + ": " + what);
  }
  [[noreturn]] void fail(const xml_node& node, const std::string& what) const {
    fail(node.offset_debug(), std::string(node.name()) + ": " + what);
  }

  void needUtf8(const xml_node& node, std::string encoding) const {
    for (char& c : encoding)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (encoding != "" && encoding != "utf-8" && encoding != "us-ascii")
      fail(node, "encoding " + shown(encoding) + ", expected utf-8");
  }

  std::string attribute(const xml_node& node, const char* name) const {
    const pugi::xml_attribute found = node.attribute(name);
    if (!found) fail(node, std::string("attribute ") + name + " is missing");
    if (!*found.value()) fail(node, std::string("attribute ") + name + " is empty");
    return found.value();
  }

  struct Key {
    Use use;
    std::string fallback;  // empty: none
  };

  void readKey(const xml_node& node) {
    const std::string id = attribute(node, "id");
    const std::string_view domain = node.attribute("for").value();
    Key key{Use::nothing, {}};
    if (domain == "node" || domain == "all" || domain == "") {
      key.use = useOf(node.attribute("attr.name").value());
      for (const xml_node& child : node)
        if (localName(child) == "default") key.fallback = trimmed(child.text().get());
    }
    if (!keys_.emplace(id, key).second) fail(node, "id " + shown(id) + " stands twice");
  }

  void readGraph(const xml_node& graph) {
    const std::string_view direction = graph.attribute("edgedefault").value();
    if (direction == "directed")
      isDirected_ = true;
    else if (direction != "undirected")
      fail(graph, "edgedefault " + shown(direction) + ", expected undirected");
    // Edges may stand before their nodes.
    for (const xml_node& node : graph)
      if (localName(node) == "node") readNode(node);
    for (const xml_node& node : graph) {
      const std::string_view name = localName(node);
      if (name == "edge")
        readEdge(node);
      else if (name == "data")
        useOfData(node);
      else if (name != "node" && name != "desc" && node.type() == pugi::node_element)
        fail(node, "not known in a graph of nodes and edges");
    }
  }

  const Key& useOfData(const xml_node& data) const {
    const std::string id = attribute(data, "key");
    const auto key = keys_.find(id);
    if (key == keys_.end()) fail(data, "key " + shown(id) + " is not declared");
    return key->second;
  }

  void readNode(const xml_node& node) {
    Router router;
    router.id = attribute(node, "id");
    const auto index = static_cast<U32>(topology_.routers.size());
    if (!routers_.emplace(router.id, index).second)
      fail(node, "id " + shown(router.id) + " stands twice");

    std::optional<std::string> values[std::size(useNames)];
    xml_node elements[std::size(useNames)] = {node, node, node, node};
    for (const xml_node& data : node) {
      if (localName(data) == "graph") fail(data, "a graph inside of a node");
      if (localName(data) != "data") continue;
      const auto use = static_cast<std::size_t>(useOfData(data).use);
      if (use == 0) continue;
      if (values[use])
        fail(data,
             std::string("a second ") + useNames[use] + " of node " + shown(router.id));
      values[use] = trimmed(data.text().get());
      elements[use] = data;
    }
    for (const auto& [id, key] : keys_)
      if (auto& value = values[static_cast<std::size_t>(key.use)];
          !value && !key.fallback.empty())
        value = key.fallback;

    const auto coordinate = [&](Use use, double limit) -> std::optional<double> {
      const auto at = static_cast<std::size_t>(use);
      const std::optional<std::string>& value = values[at];
      if (!value || value->empty()) return std::nullopt;
      double number = 0;
      const char* const begin = value->data() + (value->front() == '+');
      const char* const end = value->data() + value->size();
      const auto [stop, error] = std::from_chars(begin, end, number);
      if (error != std::errc() || stop != end || !(number >= -limit && number <= limit))
        fail(elements[at], std::string(useNames[at]) + " " + shown(*value) + " of node " +
                               shown(router.id) + ", expected degrees from -" +
                               std::to_string(static_cast<int>(limit)) + " to " +
                               std::to_string(static_cast<int>(limit)));
      return number;
    };
    const auto latitude = coordinate(Use::latitude, 90);
    const auto longitude = coordinate(Use::longitude, 180);
    if (latitude && longitude) router.place = Place{*latitude, *longitude};
    router.label = values[static_cast<std::size_t>(Use::label)].value_or("");
    topology_.routers.push_back(std::move(router));
  }

  void readEdge(const xml_node& edge) {
    if (const pugi::xml_attribute directed = edge.attribute("directed");
        directed ? std::string_view(directed.value()) != "false" : isDirected_)
      fail(edge, "directed, but a link goes both ways");
    Link link;
    for (int end = 0; end < 2; ++end) {
      const char* const name = end == 0 ? "source" : "target";
      const std::string id = attribute(edge, name);
      const auto router = routers_.find(id);
      if (router == routers_.end())
        fail(edge, std::string(name) + " " + shown(id) + " is no node of the graph");
      link.ends[end] = router->second;
    }
    for (const xml_node& data : edge)
      if (localName(data) == "data")
        useOfData(data);
      else if (localName(data) == "graph")
        fail(data, "a graph inside of an edge");
    if (link.ends[0] == link.ends[1])
      ++topology_.selfLinkCount;
    else
      topology_.links.push_back(link);
  }

  std::string_view text_;
  const std::string& file_;
  pugi::xml_document document_;
  std::map<std::string, Key> keys_;
  std::unordered_map<std::string, U32> routers_;
  bool isDirected_ = false;
  Topology topology_;
};

[[noreturn]] void throwSystem(const std::string& file, const char* call) {
  throw Failure(file + ": " + call + ": " + std::strerror(errno));
}

struct Descriptor {
  int fd;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

Topology parseGraphMl(std::string_view text, const std::string& file) {
  return Reader(text, file).read();
}

Topology readGraphMl(const std::string& file) {
  const Descriptor in{::open(file.c_str(), O_RDONLY | O_CLOEXEC)};
  if (in.fd < 0) throwSystem(file, "open");
  std::string text;
  for (char buffer[65536];;) {
    const ssize_t size = ::read(in.fd, buffer, sizeof buffer);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) throwSystem(file, "read");
    if (size == 0) break;
    text.append(buffer, static_cast<std::size_t>(size));
    if (text.size() > maxFileSize)
      throw Failure(file + ": more than " + std::to_string(maxFileSize >> 20) + " MiB");
  }
  return parseGraphMl(text, file);
}

}  // namespace Tunnelgen
