// recsearch: runs one search of recording_search and streams its results.
#include <csignal>
#include <exception>
#include <iostream>
#include <variant>

#include "CommandLine.h"
#include "ExitCode.h"
#include "RunCommand.h"
#include "client/ClientError.h"

int main(int argc, char** argv)
{
    auto parsed = recsearch::parseCommandLine(argc, argv);
    if (const int* exitCode = std::get_if<int>(&parsed)) return *exitCode;

    // A closed standard output shows up as a failed write, so the search can still be ended.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return recsearch::runCommand(std::get<recsearch::Command>(parsed));
    } catch (const rsclient::ClientError& e) {
        std::cerr << "recsearch: " << e.what() << std::endl;
        return int(e.kind());
    } catch (const std::exception& e) {
        std::cerr << "recsearch: " << e.what() << std::endl;
        return int(recsearch::ExitCode::Failure);
    }
}
