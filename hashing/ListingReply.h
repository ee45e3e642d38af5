#pragma once

/// The message that ends a listing, for the child that made it and for its clients.
namespace ListingReply {

/// "SS" root, path of the listing or "" where it failed.
inline constexpr int kCommand = 0x14A1;

}  // namespace ListingReply
