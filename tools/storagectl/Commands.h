#pragma once

#include "tools/storagectl/CommandLine.h"
#include "tools/storagectl/FileService.h"

class PubSubInterface;

namespace storagectl {

/// What every command works with; the caller's.
struct Context {
    const Options& options;
    Output& output;
    FileService& files;
};

/// Joins the bus and carries the command out.
ExitCode runCommand(PubSubInterface& bus, const Options& options, Output& output);

/// Calls `work` for each file of the command line and says what went wrong with each. Ends early
/// where no other file can fare better: no broker, no daemon, interrupted, the reader gone.
ExitCode forEachFile(Context& context, const std::function<Outcome(const QByteArray&)>& work);

ExitCode ping(Context& context);
ExitCode quit(Context& context);
ExitCode list(Context& context);
ExitCode hash(Context& context);
ExitCode cat(Context& context);
ExitCode get(Context& context);
ExitCode put(Context& context);
ExitCode removeFiles(Context& context);
ExitCode moveFile(Context& context);
ExitCode truncateFile(Context& context);
ExitCode dataInfo(Context& context);
ExitCode dataDump(Context& context);
ExitCode plot(Context& context);
ExitCode thumbsBuild(Context& context);
ExitCode lookup(Context& context);
ExitCode replay(Context& context);
ExitCode configBackup(Context& context);
ExitCode configList(Context& context);
ExitCode configShow(Context& context);
ExitCode configDiff(Context& context);
ExitCode configRestore(Context& context);
ExitCode listingCreate(Context& context);
ExitCode listingShow(Context& context);
ExitCode listingDiff(Context& context);
ExitCode mirror(Context& context);
ExitCode check(Context& context);
/// A request that costs the daemon nothing and is always answered, by a bare reply.
Message pingRequest();
/// One round trip through the file service: Success where any answer came.
Answer pingOnce(FileService& files, double& milliseconds);
/// Runs until it is interrupted, which needs no words, or has seen enough.
Outcome sniff(PubSubInterface& bus, const Options& options, Output& output);

}  // namespace storagectl
