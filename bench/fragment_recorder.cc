#include "bench/fragment_recorder.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace marlo::bench {

std::function<void(const sim::FragmentTiming&)> FragmentRecorder::hook() {
  return [this](const sim::FragmentTiming& timing) {
    std::lock_guard<std::mutex> lock(mutex_);
    fragments_.push_back(timing);
  };
}

double percentile(std::vector<double> samples, double fraction) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const size_t index = static_cast<size_t>(std::ceil(fraction * samples.size())) - 1;
  return samples[std::min(index, samples.size() - 1)];
}

DownloadFigures FragmentRecorder::figures() const {
  std::lock_guard<std::mutex> lock(mutex_);
  DownloadFigures out;
  out.fragments = fragments_.size();
  std::vector<double> latencies;
  latencies.reserve(fragments_.size());
  using Seconds = std::chrono::duration<double>;
  size_t first = 0;  // first fragment of the current image
  for (size_t i = 0; i < fragments_.size(); ++i) {
    const sim::FragmentTiming& f = fragments_[i];
    out.bytes += f.length;
    latencies.push_back(std::chrono::duration<double, std::micro>(f.answered - f.asked).count());
    const bool image_ends = i + 1 == fragments_.size() || fragments_[i + 1].image_id != f.image_id;
    if (image_ends) {
      out.phase_seconds += Seconds(f.answered - fragments_[first].asked).count();
      first = i + 1;
    }
  }
  out.median_us = percentile(latencies, 0.5);
  out.p99_us = percentile(latencies, 0.99);
  return out;
}

}  // namespace marlo::bench
