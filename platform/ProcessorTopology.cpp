#include "platform/ProcessorTopology.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>

namespace quorva {

double ProcessorCapacity(const std::filesystem::path& cpuFolder) {
    const double online = double(std::max(sysconf(_SC_NPROCESSORS_ONLN), 1l));
    std::ifstream list(cpuFolder / "online");
    std::string ranges;
    if (!std::getline(list, ranges))
        return online;
    // "0-7,16-23": the processors online, each with the list of the hardware threads of its core.
    std::set<std::string> cores;
    int processors = 0;
    std::istringstream parts(ranges);
    for (std::string part; std::getline(parts, part, ',');) {
        int first = 0, last = 0;
        const int read = std::sscanf(part.c_str(), "%d-%d", &first, &last);
        if (read < 1)
            return online;
        for (int cpu = first; cpu <= (read == 2 ? last : first); ++cpu) {
            std::ifstream siblings(cpuFolder / ("cpu" + std::to_string(cpu)) / "topology" /
                                   "thread_siblings_list");
            std::string core;
            if (!std::getline(siblings, core))
                return online;
            cores.insert(core);
            ++processors;
        }
    }
    if (processors == 0)
        return online;
    return double(cores.size()) + SharedCoreGain * double(processors - int(cores.size()));
}

} // namespace quorva
