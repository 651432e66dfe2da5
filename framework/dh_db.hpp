#pragma once

#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "dh_db_node.hpp"

class dh_db_event_node;

// The entries of one database. Nodes point back here weakly so that a node outliving its
// database (held by a request in flight) does not touch freed memory.
struct dh_db_registry {
    struct entry {
        std::weak_ptr<dh_db_leaf_node> node;
        const dh_db_node* identity;
    };
    mutable std::shared_mutex mutex;
    std::map<std::string, entry, std::less<>> nodes;

    void erase(const std::string& path, const dh_db_node* node);
};

// The path-addressed node store of one device handler.
class dh_db {
  public:
    struct listing_entry {
        std::string path;
        std::shared_ptr<dh_db_leaf_node> node;
    };

    dh_db();
    dh_db(const dh_db&) = delete;
    dh_db& operator=(const dh_db&) = delete;

    // "data/lane/0/txEnable" -> {"data", "lane", "0", "txEnable"}; a leading "/" is ignored,
    // empty components are refused.
    static std::vector<std::string> split_path(std::string_view path);
    static std::string join_path(const std::vector<std::string>& components);

    // Registers a node; a live node already at the path is an error (-17).
    void add_node(const std::vector<std::string>& path,
                  const std::shared_ptr<dh_db_leaf_node>& node);

    std::shared_ptr<dh_db_leaf_node> find(std::string_view path) const;
    // As find, but an unknown path throws -2 "No such node: " + path.
    std::shared_ptr<dh_db_leaf_node> lookup(std::string_view path) const;
    // Live nodes whose path is `prefix` or lies below it, sorted by path.
    std::vector<listing_entry> list(std::string_view prefix = {}) const;
    std::size_t size() const;

    // Records one value change of an event node with the current wall time.
    static void append_to_history(dh_db_event_node& node, const std::string& value_text);

  private:
    std::shared_ptr<dh_db_registry> registry_;
};
