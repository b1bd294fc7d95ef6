#pragma once

#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "Hivel/Client.h"
#include "Hivel/SharedMemory.h"
#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"

// An agent without a loop: it publishes the names of the tunnels that stand in
// staticTunnelTable, so that others find a tunnel by its name. epoll_agent.cpp and
// asio_agent.cpp run it in loops that have other things to do.
//
// A loop gives it two things: process() when fd() is readable, after each of which it calls
// while wants(), and look() now and then, as shared memory tells nobody of a change.
class NameAgent {
 public:
  NameAgent(const std::string& socket, const std::string& name)
      : client_({.socketPath = socket, .name = name}),
        tableName_(Hivel::shmName(socket, "tunnel/table/staticTunnelTable")),
        status_(Tunnel::TunnelTable::protocolTunnelNameStatusFactory(name)),
        names_(status_->localTunnelNameStatusIs(Tunnel::TunnelTable::staticTunnel)) {
    mount("tunnel/tunnelName/" + name, status_);
    // The directory says which agents there are; this one has no tables of its own.
    mount("tunnel/tableInfo/" + name,
          Tunnel::TunnelTable::tunnelTableInfoCollectionFactory(name));
  }

  // [loop]
  int fd() const { return client_.fd(); }
  void process() {
    client_.process();
    flush();
  }
  // After whatever has written entities: sends it.
  void flush() {
    while (client_.wants())
      client_.process();
  }
  // [loop]

  // [rows]
  // Brings the names up to date with the rows that changed since the last look.
  void look() {
    try {
      if (!rows_ || rows_->isRemoved()) {  // one made anew has the same name
        rows_.emplace(tableName_);
        upTo_ = 0;
      }
      std::vector<U64> keys;
      if (rows_->changedSince(upTo_, keys, upTo_)) {
        keys.insert(keys.end(), busy_.begin(), busy_.end());
        busy_.clear();
        for (const U64 key : keys)
          look(key);
      } else {  // the table remembers 65536 changes, and there were more
        forgetAll();
        rows_->forEachRow([this](U64 key, const auto& row) { name(key, row); });
      }
    } catch (const Quarn::TableException&) {
      rows_.reset();  // nobody has made the table yet
      forgetAll();
    }
    flush();
  }
  // [rows]

 private:
  using TunnelId = Tunnel::TunnelTable::TunnelId;
  using Row = Tunnel::TunnelTable::TunnelTableEntry;

  // Does not wait: what is written before the mount is live goes out when it is.
  void mount(const std::string& path, const Kop::Ptr<Kop::Entity>& entity) {
    Hivel::MountOptions options;
    options.entity = entity;
    Hivel::Mount& mount = client_.mount(path, Hivel::Mode::replace, options);
    mount.onState = [](Hivel::Mount& of) {
      if (of.state() == Hivel::Mount::State::refused)
        std::cerr << of.path() << ": " << of.reason() << std::endl;
    };
  }

  void look(U64 key) {
    Row row;
    switch (rows_->row(key, row)) {
      case Quarn::RowState::found: return name(key, row);
      case Quarn::RowState::absent: return forget(key);
      case Quarn::RowState::busy: return busy_.push_back(key);  // for the next look
    }
  }
  void name(U64 key, const Row& row) {
    const TunnelId id = row.tunnelId();
    const Kop::String now = row.getName();
    if (id.value() != key || names_->tunnelIdToName(id) == now) return;
    forget(key);
    // Rows are another process's, which may give a name twice; a name is that of one tunnel.
    if (now.empty() || names_->tunnelNameToIdHas(now)) return;
    names_->addTunnelIdNamePair(id, now);
    std::cout << id.toCliStrep() << " is called " << now << std::endl;
  }
  void forget(U64 key) {
    if (key > TunnelId::maxValue || !names_->tunnelIdToNameHas(TunnelId(key))) return;
    std::cout << "no tunnel is called " << names_->tunnelIdToName(TunnelId(key))
              << " any more" << std::endl;
    names_->delTunnelIdNamePair(TunnelId(key));
  }
  void forgetAll() {
    busy_.clear();
    std::vector<U64> keys;
    for (const auto& node : names_->tunnelIdToName())
      keys.push_back(node.key().value());
    for (const U64 key : keys)
      forget(key);
  }

  Hivel::Client client_;
  const std::string tableName_;
  Kop::Ptr<Tunnel::TunnelTable::ProtocolTunnelNameStatus> status_;
  Kop::Ptr<Tunnel::TunnelTable::TunnelNameStatus> names_;
  std::optional<Quarn::TableReader<Row>> rows_;
  U64 upTo_ = 0;           // changes of the table up to here were looked at
  std::vector<U64> busy_;  // rows that changed too fast to be read
};
