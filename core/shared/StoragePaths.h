#pragma once

#include <QString>

/// The fixed roots of the unit's storage and the one rule about them.
namespace StoragePaths {

inline constexpr char kDataRoot[] = "/root/data";
inline constexpr char kConfigRoot[] = "/root/config";
inline constexpr char kCardRoot[] = "/mmc";

/// True if the cleaned path lies under "/root/config/", "/root/data/" or "/mmc".
/// KEPT: "/mmc" is a bare prefix, so /mmcblk0 passes: cards are mounted under such names.
bool isAllowed(const QString& filename);

}  // namespace StoragePaths
