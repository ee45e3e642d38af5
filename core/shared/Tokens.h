#pragma once

/// The names of the bus tokens that the daemon listens to and sends on. "%d" takes a process id;
/// that of kWriteCountFormat, a connection.
namespace Tokens {

inline constexpr char kClientName[] = "scada-storage-process";

inline constexpr char kOwnCommandsFormat[] = "Message.ExtProc.to.%d";
inline constexpr char kOwnRepliesFormat[] = "Message.ExtProc.from.%d";
inline constexpr char kStorageRequests[] = "Message.storage";
inline constexpr char kStorageManager[] = "StorageManager.to";
inline constexpr char kThumbnailDayFinished[] = "ThumbnailManager.dayFinished";
inline constexpr char kConnectionStatus[] = "ConnectionManager.status";
inline constexpr char kWriteCountFormat[] = "ConnectionManager.writeCount.%d";

inline constexpr char kClientMessage[] = "ConnectionManager.clientMessage";
inline constexpr char kGaugeData[] = "HistoricalData.gaugeData";
inline constexpr char kConnectionManager[] = "ConnectionManager.to";
inline constexpr char kNotificationAdd[] = "Notification.add";
inline constexpr char kNotificationUpdate[] = "Notification.update";
inline constexpr char kNotificationDelete[] = "Notification.delete";
inline constexpr char kRestartApplication[] = "System.restartApplication";

}  // namespace Tokens
