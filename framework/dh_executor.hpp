#pragma once

#include <boost/asio/thread_pool.hpp>

namespace dh {

// Threads for work that must not hold up its caller: asynchronous getters.
boost::asio::thread_pool& background_pool();

}  // namespace dh
