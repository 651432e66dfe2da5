#include "dh_executor.hpp"

namespace dh {

boost::asio::thread_pool& background_pool() {
    static boost::asio::thread_pool pool(2);
    return pool;
}

}  // namespace dh
