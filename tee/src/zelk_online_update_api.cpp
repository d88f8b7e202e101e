#include "tee/zelk_online_update_api.hpp"

#include "tee/zelk_online_update_client.hpp"

namespace qervo::tee {

std::shared_ptr<ZELKOnlineUpdateAPI> ZELKOnlineUpdateAPI::get_instance() {
    return ZELKOnlineUpdateClient::get_instance();
}

}  // namespace qervo::tee
