#pragma once

#include <QByteArray>

/// The last step of writing a file beside its place: whoever looks sees the old file or the new
/// one, after a sudden end too. `descriptor` is open on `beside`, which is in the same folder as
/// `place`. Forces the file to storage, renames it over its place and forces that to storage. False
/// where the file could not be put there, `beside` is then gone, or where storage did not confirm
/// it. Names are as the system has them; nothing is logged.
bool putInPlace(int descriptor, const QByteArray& beside, const QByteArray& place);
