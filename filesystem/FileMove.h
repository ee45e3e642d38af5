#pragma once

#include <QByteArray>

/// Puts the file or directory `from` in the place of `to`, which is replaced in one step; both
/// are paths in the file system's encoding. On another file system it is copied beside `to` (a
/// regular file only), synced and renamed into place before `from` is removed, so that one whole
/// file exists at every moment. True if `from` is now `to`. A missing `from` removes `to` all the
/// same; a copied `from` that cannot be removed is then in both places; any other failure leaves
/// `to` as it was, above all where both are one file.
bool moveInPlaceOf(const QByteArray& from, const QByteArray& to);
