// Command-line options of the batch front end.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct Cli_Options {
  std::string subcommand;                                // "info", "settings", ...
  std::vector<std::string> args;                         // the subcommand's own words
  std::string ivp;                                       // --ivp FILE
  std::vector<std::pair<std::string, std::string>> sets; // --set KEY=VALUE
  std::string buffer;                                    // --buffer DIR
  int threads = 0;                                       // --threads N
  int answer = 0;                                        // --yes 1, --no 0
  bool trace = false;                                    // --trace
  bool quiet = false;                                    // --quiet
  bool help = false;                                     // --help
  bool version = false;                                  // --version
  // Options of single subcommands, kept by name: -o, --model, --format, ...
  std::vector<std::pair<std::string, std::string>> named;
};

// Parses argv; returns 0, or 2 with `error` set on a usage error.
int Parse_Cli(int argc, char **argv, Cli_Options &opt, std::string &error);

// The text of --help, for the whole program or one subcommand.
const char *Cli_Usage(const std::string &subcommand);
