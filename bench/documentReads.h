// How often an operation reads a document.

#ifndef TARN_BENCH_DOCUMENTREADS_H
#define TARN_BENCH_DOCUMENTREADS_H

#include <functional>
#include <string>

namespace bench {

// Runs `work` and answers how many times it opened the file `path`.
int documentReads(const std::string& path, const std::function<void()>& work);

}  // namespace bench

#endif
