// Collects the co-processor side's fragment timings of one download and
// reduces them to the figures of the benchmark.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "sim/dfu_coprocessor.h"

namespace marlo::bench {

struct DownloadFigures {
  uint64_t bytes = 0;        // fragment bytes moved in the image phases
  double phase_seconds = 0;  // sum over images: first request sent to last answer received
  double median_us = 0;      // request sent to answer received
  double p99_us = 0;
  size_t fragments = 0;

  double mib_per_second() const { return phase_seconds > 0 ? bytes / 1048576.0 / phase_seconds : 0; }
  double ms_per_mib() const { return bytes > 0 ? phase_seconds * 1000.0 / (bytes / 1048576.0) : 0; }
};

class FragmentRecorder {
 public:
  // The hook to put in DfuConfig::on_fragment; the recorder must outlive
  // the co-processor it is given to.
  std::function<void(const sim::FragmentTiming&)> hook();
  DownloadFigures figures() const;

 private:
  mutable std::mutex mutex_;
  std::vector<sim::FragmentTiming> fragments_;
};

// The value below which `fraction` of the sorted samples lie.
double percentile(std::vector<double> samples, double fraction);

}  // namespace marlo::bench
