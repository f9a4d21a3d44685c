#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zonaris/service/fence_set.hpp"
#include "zonaris/service/store.hpp"

namespace zonaris::service_tool {

/// Whether `db` names a PostgreSQL database: a "postgresql://" or "postgres://" URL.
bool isPostgresUrl(std::string_view db);

/// How many connections a node keeps to PostgreSQL unless told otherwise.
inline constexpr std::size_t kDefaultPostgresConnections = 4;

/// The service's state in PostgreSQL with PostGIS at `url`, shared by any number of services
/// (nodes) at once.
///
/// At the start the schema is brought to the current version (each migration applied once,
/// even when several nodes start together) and the fences are loaded as geography with a GiST
/// index, unless the database already holds the same fences; both under one advisory lock, so
/// that nodes started together with one fences file load it once. Nodes serving one database
/// must be given the same fences file.
///
/// Sessions come from a pool of at most `connections` connections. A connection that the
/// server dropped (a restart) is replaced on the next request, so a node outlives the restart
/// of its database: requests during the outage fail, later ones succeed. An install is held by
/// locking its row (`SELECT ... FOR UPDATE`) until the transaction ends.
std::unique_ptr<Store> openPostgresStore(const std::string& url, const std::vector<Fence>& fences,
                                         std::string& error,
                                         std::size_t connections = kDefaultPostgresConnections);

}  // namespace zonaris::service_tool
