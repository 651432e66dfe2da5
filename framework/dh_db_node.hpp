#pragma once

#include <memory>
#include <string>

#include "dh_json.hpp"

class dh_session;
class dh_db;
struct dh_db_registry;

// A named place in the database. The database only refers to nodes; their owners keep them
// alive, and a node takes its entry with it when the last owner lets go.
class dh_db_node {
  public:
    dh_db_node() = default;
    virtual ~dh_db_node();
    dh_db_node(const dh_db_node&) = delete;
    dh_db_node& operator=(const dh_db_node&) = delete;

    const std::string& get_path() const { return path_; }

  private:
    friend class dh_db;
    std::string path_;
    std::weak_ptr<dh_db_registry> registry_;
};

// The operations a client may ask of a node. The defaults refuse with -95 and a text naming
// the node's kind and the operation, so each kind overrides only what it offers.
class dh_db_leaf_node : public dh_db_node, public std::enable_shared_from_this<dh_db_leaf_node> {
  public:
    virtual dh::json_value export_history_entry(dh::json_allocator& allocator) const;
    virtual void get(const std::string& path, dh::json_allocator& allocator, dh::json_value& out);
    virtual void set(const std::string& path, const dh::json_value& value);
    virtual void run(const std::string& path, const dh::json_value& argument,
                     dh::json_allocator& allocator, dh::json_value& out);
    virtual void reset();
    virtual void periodic_task(bool force_event);
    virtual bool subscription_supported() const { return false; }
    virtual void subscribe(const std::shared_ptr<dh_session>& session, const std::string& path,
                           dh::json_allocator& allocator, dh::json_value& out);
    virtual void unsubscribe(const std::shared_ptr<dh_session>& session);
    // One-line description of the kind, e.g. "volatile value (read)".
    virtual std::string get_info() const = 0;
    // The self-description clients get from "info".
    virtual dh::json_value get_info(dh::json_allocator& allocator) const;
    virtual bool is_read_only() const { return false; }
    virtual bool write_returns_response() const { return false; }

    // The kind's name as clients see it in "type" ("volatile value", "config param", ...).
    virtual std::string kind() const = 0;
    virtual bool readable() const { return false; }
    // The current value as JSON text; the server's fast path for reads.
    virtual std::string get_text(const std::string& path);
    // Whether a read may wait on a handler (bus access, handler mutex). Reads that only return
    // a stored value are answered on the server's network thread.
    virtual bool get_may_block() const { return true; }

  protected:
    // The framework's base info object: {"path", "description"}; kinds append their members.
    dh::json_value base_info(dh::json_allocator& allocator) const;
    [[noreturn]] void refuse(const char* operation) const;
};
