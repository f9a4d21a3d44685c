#include "zonaris/install_id_store.hpp"

namespace zonaris {

void ZonarisUserDefaults::setInstallId(platform::KeyValueStore& store, std::int64_t installId) {
  store.setLong(kInstallIdKey, installId);
}

std::int64_t ZonarisUserDefaults::getInstallId(const platform::KeyValueStore& store) {
  return store.getLong(kInstallIdKey);
}

}  // namespace zonaris
