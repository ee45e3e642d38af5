#pragma once

/// The command codes that the daemon itself answers to; the file service's are in
/// filesystem/FileProtocol.h.
enum DaemonCommand : int {
    COMMAND_KEEPALIVE = 0,                  ///< "" -> "i" process id
    COMMAND_QUIT = 1,                       ///< ""
    COMMAND_THUMBNAIL_DAY = 220,            ///< "SS" job, date
    COMMAND_LOOKUP = 230,                   ///< "SiiSSS", see HistoricalDataManager::lookup
    COMMAND_BEGIN_REPLAY = 231,             ///< "SS" requester, start
    COMMAND_CONTINUE_REPLAY = 232,          ///< "iS" job, options
    COMMAND_ACKNOWLEDGE_REPLAY_DATA = 234,  ///< "ii" job, sequence
};
