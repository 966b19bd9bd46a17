// The command-line host. docs/cli.md documents it.
#include "Commands.h"
#include "Interruption.h"
#include "Output.h"

#include <ExitCodes.h>
#include <Tracer.h>

#include <QCoreApplication>

#include <csignal>
#include <cstdio>

using namespace halvane::cli;

namespace {

bool printLog = false;

// The libraries' logs are for people who look for a cause; a user gets errors and warnings through Output.
void logMessage(QtMsgType type, const QMessageLogContext& context, const QString& text) {
    if (printLog || type == QtFatalMsg)
        std::fprintf(stderr, "%s\n", qFormatLogMessage(type, context, text).toUtf8().constData());
}

int end(const CommandLineEnd& end) {
    if (end.exitCode == 0) {
        std::fputs(end.text.toUtf8().constData(), stdout);
        return end.exitCode;
    }
    GlobalOptions options;
    options.json = end.json;
    return Output(options).error(orx::Error(orx::ErrorCode::InvalidArgument, end.text));
}

orx::Error startTracing(const QString& path) {
    if (path.isEmpty())
        return {};
    orx::TracerCategorySettings settings;
    settings.setEnabled(QStringLiteral("FILE_UPLOAD"), true);
    return orx::Tracer::initialize(path, settings);
}

} // namespace

int main(int argc, char** argv) {
    // A reader of standard output that has gone is an error of write(), not a reason to die without clean-up.
    std::signal(SIGPIPE, SIG_IGN);
    printLog = qEnvironmentVariableIsSet("HALVANE_LOG");
    qInstallMessageHandler(logMessage);

    const auto parsed = parseCommandLine(argc, argv);
    if (const auto* ended = std::get_if<CommandLineEnd>(&parsed))
        return end(*ended);
    const auto& commandLine = std::get<CommandLine>(parsed);

    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("halvane"));
    const Output output(commandLine.global);
    Interruption interruption;
    if (const orx::Error error = startTracing(commandLine.global.traceFile); error.hasError())
        return output.error(error);
    const int exitCode = runCommand(commandLine, output, interruption);
    orx::Tracer::shutdown();
    return output.exitCodeAtEnd(exitCode);
}
