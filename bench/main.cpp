// SPDX-License-Identifier: GPL-3.0-or-later
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "bench/table.h"

int main(int argc, char** argv)
{
    const std::filesystem::path json = std::filesystem::path(argv[0]).replace_filename("bench.json");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    const korvobench::CResultTable& table = korvobench::resultTable();
    if (table.empty())
        return 0;
    std::cout << '\n';
    table.print(std::cout);
    std::ofstream file(json);
    table.writeJson(file);
    std::cout << "\nwritten to " << json.string() << '\n';
    return file.good() ? 0 : 1;
}
