#include <exception>

#include <spdlog/spdlog.h>

#include "apps/fpmagent/CommandLine.h"

int main(int argc, char** argv) try {
  Fpm::Arguments arguments;
  if (const auto status = Fpm::parse(argc, argv, arguments)) return *status;
  return Fpm::run(arguments);
} catch (const std::exception& e) {
  spdlog::error("{}", e.what());
  return Fpm::exitFailed;
}
