// mvda._core: the command-line tool's analyses for Python. The fits, prediction, clustering,
// control charts and the model file are the tool's own functions (apps/mvda); this file only
// converts arrays and runs the long calls so that Python stays responsive.
//
// A long call runs on a worker thread. The calling thread gives up the GIL and wakes every 200 ms
// to look for Ctrl-C (PyErr_CheckSignals, which runs Python's handler) and to hand the progress to
// the caller's callback. A stop is asked through the library's own mechanism: every NCProgress
// the call creates answers IsBreakPressed, so the fit ends at its next check with the library's
// stop error. The caller waits up to a second for that; a library step that runs longer without
// looking (on a busy machine a cross-validation round can) finishes on its own, with its own copy
// of the data, and the KeyboardInterrupt is not held back for it. Interpreter exit waits for such
// workers, so none outlives the library.
#include <mvda/containers/multi_threading.h>
#include <mvda/diagnostics/hotelling.h>
#include <mvda/diagnostics/pls_diagnostics.h>
#include <mvda/diagnostics/spe.h>
#include <mvda/platform/error.h>
#include <mvda/platform/progress.h>
#include <mvda/platform/stream.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <omp.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "analysis.h"
#include "model_file.h"
#include "output_files.h"
#include "tool_error.h"

namespace py = pybind11;
using mvda::cli::ModelFile;
using Matrix = NCDataMatrix<float>;
using FloatArray = py::array_t<float, py::array::c_style | py::array::forcecast>;

namespace {

constexpr float kMissing = -99.0f;

// ------------------------------------------------------------------------------------------------
// Long calls

// What a running call shares between its worker and the thread waiting for it.
struct Call {
  std::atomic<bool> stop{false};
  std::atomic<double> fraction{0.0};
  std::mutex text_lock;
  std::string text;
};

thread_local Call* current_call = nullptr;

// The reporter of one step of a call: records where the step is and answers the call's stop.
class CallProgress : public NCProgress {
 public:
  CallProgress(Call* call, const std::string& text, double min, double max)
      : NCProgress(text, min, max), call_(call) {
    Changed();
  }
  bool IsBreakPressed() override { return call_->stop.load() || NCProgress::IsBreakPressed(); }

 protected:
  void Changed() override {
    call_->fraction.store(Fraction());
    std::lock_guard<std::mutex> guard(call_->text_lock);
    if (call_->text != GetText()) call_->text = GetText();
  }

 private:
  Call* call_;
};

// Every reporter the library makes for itself while a call runs on this thread belongs to the
// call; elsewhere (threads the library starts, or no call) a silent one, as there is no terminal.
std::shared_ptr<NCProgress> MakeProgress(const std::string& text, double min, double max) {
  if (current_call) return std::make_shared<CallProgress>(current_call, text, min, max);
  return std::make_shared<NCProgress>(text, min, max);
}

// The thread count of one call. The library's processor count is process-wide; a call that sets
// it holds this lock until it has put the old value back, so that two such calls (one of them
// perhaps still stopping) do not restore each other's values. The OpenMP team size belongs to the
// thread that sets it, so every worker applies the library's setting to itself.
std::mutex thread_count_lock;

class ThreadScope {
 public:
  explicit ThreadScope(int threads) : changed_(threads > 0) {
    // Teams that shrink on a busy machine, as ThreadingControl::Reset sets them for the thread
    // that loaded the library; a new thread starts with the runtime's fixed teams instead.
    omp_set_dynamic(1);
    if (changed_) {
      hold_ = std::unique_lock<std::mutex>(thread_count_lock);
      processors_ = NCMultiThreading::ThreadingControl::GetNumberOfProcessors();
      on_ = NCMultiThreading::ThreadingControl::IsThreadingOn();
      NCMultiThreading::ThreadingControl::SetNumberOfProcessors(threads);
      NCMultiThreading::ThreadingControl::SetThreadingIsOn(threads > 1);
    } else {
      NCMultiThreading::ThreadingControl::SetThreadingIsOn(
          NCMultiThreading::ThreadingControl::IsThreadingOn());
    }
  }
  ~ThreadScope() {
    if (!changed_) return;
    NCMultiThreading::ThreadingControl::SetNumberOfProcessors(processors_);
    NCMultiThreading::ThreadingControl::SetThreadingIsOn(on_);
  }
  ThreadScope(const ThreadScope&) = delete;
  ThreadScope& operator=(const ThreadScope&) = delete;

 private:
  bool changed_;
  std::unique_lock<std::mutex> hold_;
  int processors_ = 1;
  bool on_ = false;
};

// The workers still running, for the wait at interpreter exit.
std::mutex workers_lock;
std::condition_variable workers_done;
int workers = 0;

void WaitForWorkers() {
  py::gil_scoped_release release;
  std::unique_lock<std::mutex> lock(workers_lock);
  workers_done.wait(lock, [] { return workers == 0; });
}

// The threads that run the calls, kept for the next call rather than started anew: a new thread
// gets a malloc arena of its own, and refilling it with fresh pages made a fit on a new thread a
// good third slower than the same fit on the thread before. A call takes an idle thread, or adds
// one when all are busy (a stopped call may still be finishing). Never destroyed: idle threads
// wait on it until the process ends.
class WorkerThreads {
 public:
  void Run(std::function<void()> task) {
    std::lock_guard<std::mutex> guard(lock_);
    tasks_.push_back(std::move(task));
    if (tasks_.size() > idle_) {
      std::thread([this] { Loop(); }).detach();
    } else {
      wake_.notify_one();
    }
  }

 private:
  void Loop() {
    std::unique_lock<std::mutex> lock(lock_);
    for (;;) {
      ++idle_;
      wake_.wait(lock, [this] { return !tasks_.empty(); });
      --idle_;
      std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }

  std::mutex lock_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  std::size_t idle_ = 0;  // threads waiting for a task
};

WorkerThreads& Threads() {
  static WorkerThreads* threads = new WorkerThreads();  // outlives every static destructor
  return *threads;
}

// One call's worker and what it shares with the caller; owned by both, so that a worker left to
// finish after a stop still has everything it uses.
template <class Result>
struct Job {
  std::function<Result()> work;
  int threads = 0;
  Call call;
  std::mutex lock;
  std::condition_variable finished;
  bool done = false;
  std::optional<Result> result;
  std::exception_ptr error;
};

// Runs work() on a worker thread as described at the top; called with the GIL held. work must
// own what it uses (captured by value).
template <class Result>
Result RunLong(std::function<Result()> work, const py::object& callback, int threads) {
  auto job = std::make_shared<Job<Result>>();
  job->work = std::move(work);
  job->threads = threads;
  std::exception_ptr python_error;
  const bool report = !callback.is_none();
  {
    std::lock_guard<std::mutex> guard(workers_lock);
    ++workers;
  }
  py::gil_scoped_release release;
  Threads().Run([job] {
    current_call = &job->call;
    try {
      ThreadScope scope(job->threads);
      job->result.emplace(job->work());
    } catch (...) {
      job->error = std::current_exception();
    }
    current_call = nullptr;
    {
      std::lock_guard<std::mutex> guard(job->lock);
      job->done = true;
      job->finished.notify_all();
    }
    std::lock_guard<std::mutex> guard(workers_lock);
    --workers;
    workers_done.notify_all();
  });
  std::unique_lock<std::mutex> waiting(job->lock);
  while (!job->done && !python_error) {
    job->finished.wait_for(waiting, std::chrono::milliseconds(200));
    if (job->done) break;
    waiting.unlock();
    {
      py::gil_scoped_acquire gil;
      try {
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
        if (report) {
          std::string text;
          {
            std::lock_guard<std::mutex> guard(job->call.text_lock);
            text = job->call.text;
          }
          callback(text, job->call.fraction.load());
        }
      } catch (...) {
        python_error = std::current_exception();
        job->call.stop.store(true);
      }
    }
    waiting.lock();
  }
  if (python_error) {
    job->finished.wait_for(waiting, std::chrono::seconds(1), [&] { return job->done; });
    waiting.unlock();
    std::rethrow_exception(python_error);  // the GIL is taken back on the way out
  }
  waiting.unlock();
  if (job->error) std::rethrow_exception(job->error);
  return std::move(*job->result);
}

// ------------------------------------------------------------------------------------------------
// Arrays

// Rows of a float32 C-contiguous array (the Python side hands every input over as one, without a
// copy when it already is), NaN becoming the library's missing marker. The marker itself and
// infinities are refused: either would be read as something the caller did not mean.
Matrix ToMatrix(const FloatArray& a, const char* what) {
  if (a.ndim() != 2) throw mvda::cli::ToolError(std::string(what) + ": a 2-D array is expected");
  if (a.shape(0) > INT_MAX || a.shape(1) > INT_MAX) {
    throw mvda::cli::ToolError(std::string(what) + ": too many rows or columns");
  }
  const int n = static_cast<int>(a.shape(0)), k = static_cast<int>(a.shape(1));
  Matrix m(0, k, 0.0f);
  m.ReserveRows(n);
  const float* source = a.data();
  for (int i = 0; i < n; ++i) {
    NCDataVector<float> row(k, 0.0f);
    float* out = row.GetVector();
    int missing = 0;
    for (int j = 0; j < k; ++j) {
      const float v = source[static_cast<std::size_t>(i) * static_cast<std::size_t>(k) +
                             static_cast<std::size_t>(j)];
      if (std::isnan(v)) {
        out[j + 1] = kMissing;
        ++missing;
        continue;
      }
      if (v == kMissing || std::isinf(v)) {
        throw mvda::cli::ToolError(std::string(what) + ": row " + std::to_string(i) + ", column " +
                                   std::to_string(j) + ": " +
                                   (std::isinf(v) ? "infinite value" : "the value -99") +
                                   " (-99 marks missing values in mvda; use NaN)");
      }
      out[j + 1] = v;
    }
    row.SetNumMisVal(missing);
    m.push_back(row);
  }
  if (n == 0) m = Matrix(0, k, 0.0f);
  return m;
}

// A matrix as float64 rows (or columns, transposed), -99 becoming NaN.
py::array_t<double> ToArray(const Matrix& m, bool transpose) {
  const py::ssize_t rows = m.SizeRows(), cols = m.SizeColumns();
  py::array_t<double> out(transpose ? std::vector<py::ssize_t>{cols, rows}
                                    : std::vector<py::ssize_t>{rows, cols});
  auto view = out.mutable_unchecked<2>();
  for (py::ssize_t i = 0; i < rows; ++i) {
    const auto& row = m[static_cast<int>(i) + 1];
    for (py::ssize_t j = 0; j < cols; ++j) {
      const float v = row[static_cast<int>(j) + 1];
      const double d = v == kMissing ? std::nan("") : static_cast<double>(v);
      if (transpose) {
        view(j, i) = d;
      } else {
        view(i, j) = d;
      }
    }
  }
  return out;
}

py::array_t<double> ToArray(const NCDataVector<float>& v, double none) {
  py::array_t<double> out(v.Size());
  auto view = out.mutable_unchecked<1>();
  for (int i = 1; i <= v.Size(); ++i) view(i - 1) = v[i] == kMissing ? none : v[i];
  return out;
}

std::vector<std::string> Names(const NCStringVector& names) {
  std::vector<std::string> out;
  for (int j = 1; j <= names.Size(); ++j) out.push_back(names[j]);
  return out;
}

std::vector<std::string> Numbered(int n) {
  std::vector<std::string> out;
  out.reserve(static_cast<std::size_t>(n));
  for (int i = 1; i <= n; ++i) out.push_back(std::to_string(i));
  return out;
}

// A table as the tool reads one from a CSV file: the given columns, observations numbered.
mvda::cli::CsvTable Table(const Matrix& x, const std::vector<std::string>& names) {
  mvda::cli::CsvTable table;
  table.path = "X";
  table.row_names = Numbered(x.SizeRows());
  table.columns = names;
  table.is_text.assign(names.size(), false);
  table.text.assign(names.size(), {});
  table.values.reserve(static_cast<std::size_t>(x.SizeRows()) * names.size());
  for (const auto& row : x) table.values.insert(table.values.end(), row.begin(), row.end());
  return table;
}

// ------------------------------------------------------------------------------------------------
// Results

py::dict Rows(const std::vector<mvda::cli::ComponentRow>& rows) {
  py::list out;
  for (const auto& r : rows) {
    py::dict d;
    d["component"] = r.component;
    d["r2x"] = r.r2x;
    d["r2x_cum"] = r.r2x_cum;
    d["r2y"] = r.r2y;
    d["r2y_cum"] = r.r2y_cum;
    d["q2"] = r.q2;
    d["q2_cum"] = r.q2_cum;
    d["q2_limit"] = r.q2_limit;
    d["q2_y"] = r.q2_y;
    d["q2_y_cum"] = r.q2_y_cum;
    d["verdict"] = r.verdict;
    d["kept"] = r.kept;
    d["iterations"] = r.iterations;
    out.append(d);
  }
  py::dict result;
  result["rows"] = out;
  return result;
}

mvda::cli::FitSettings Settings(int components, const std::string& scaling, int groups,
                                int max_iter) {
  mvda::cli::FitSettings s;
  s.components = components;
  s.scaling = scaling;
  s.groups = groups;
  s.max_iterations = max_iter;
  return s;
}

py::dict FitPca(const FloatArray& x, const std::vector<std::string>& names, int components,
                const std::string& scaling, int groups, int max_iter, int threads,
                const py::object& callback) {
  mvda::cli::Dataset data;
  data.path = "X";
  data.x = ToMatrix(x, "X");
  data.x_names = names;
  const auto settings = Settings(components, scaling, groups, max_iter);
  const auto fit = RunLong<mvda::cli::ModelResult>(
      [data, settings]() mutable { return mvda::cli::FitPca(std::move(data), settings); }, callback,
      threads);
  py::dict out = Rows(fit.rows);
  out["model"] = fit.model;
  return out;
}

py::dict FitPls(const FloatArray& x, const FloatArray& y, const std::vector<std::string>& x_names,
                const std::vector<std::string>& y_names, int components, const std::string& scaling,
                int groups, int max_iter, int threads, const py::object& callback) {
  mvda::cli::Dataset data;
  data.path = "X";
  data.x = ToMatrix(x, "X");
  data.y = ToMatrix(y, "y");
  data.x_names = x_names;
  data.y_names = y_names;
  if (data.x.SizeRows() != data.y.SizeRows()) {
    throw mvda::cli::ToolError("X has " + std::to_string(data.x.SizeRows()) + " rows, y " +
                               std::to_string(data.y.SizeRows()));
  }
  const auto settings = Settings(components, scaling, groups, max_iter);
  const auto fit = RunLong<mvda::cli::ModelResult>(
      [data, settings]() mutable { return mvda::cli::FitPls(std::move(data), settings); }, callback,
      threads);
  py::dict out = Rows(fit.rows);
  out["model"] = fit.model;
  out["coefficients"] = ToArray(fit.coefficients, false);
  out["intercepts"] = fit.intercepts;
  return out;
}

// Scores (observations x components) and, for PLS, predicted responses of new rows, through the
// tool's prediction: rows with more than max_missing of their values missing get no scores.
py::dict Predict(const ModelFile& model, const FloatArray& x, double max_missing) {
  const Matrix m = ToMatrix(x, "X");
  if (m.SizeColumns() != model.x_names.Size()) {
    throw mvda::cli::ToolError("X has " + std::to_string(m.SizeColumns()) + " columns, the model " +
                               std::to_string(model.x_names.Size()));
  }
  const mvda::cli::CsvTable table = Table(m, Names(model.x_names));
  mvda::cli::PredictResult r;
  {
    py::gil_scoped_release release;
    r = mvda::cli::Predict(model, "the model", table, max_missing, "");
  }
  py::dict out;
  out["scores"] = ToArray(r.tprim, true);
  if (model.kind == ModelFile::kPLS) out["y"] = ToArray(r.y_pred, false);
  return out;
}

py::array_t<double> Linkage(const FloatArray& x, const std::string& method,
                            const std::string& scaling, const std::string& cache, int threads,
                            const py::object& callback) {
  mvda::cli::Dataset data;
  data.path = "X";
  data.x = ToMatrix(x, "X");
  data.row_names = Numbered(data.x.SizeRows());
  for (int j = 1; j <= data.x.SizeColumns(); ++j) data.x_names.push_back("x" + std::to_string(j));
  const auto result = RunLong<mvda::cli::ClusterResult>(
      [data, method, scaling, cache]() mutable {
        return mvda::cli::Cluster(std::move(data), method, scaling, cache, 0);
      },
      callback, threads);
  // Clusters as SciPy numbers them: rows 0..N-1, merge k (0-based) makes N + k.
  py::array_t<double> z({static_cast<py::ssize_t>(result.merges.size()), py::ssize_t{4}});
  auto view = z.mutable_unchecked<2>();
  for (std::size_t k = 0; k < result.merges.size(); ++k) {
    const auto& merge = result.merges[k];
    const py::ssize_t row = static_cast<py::ssize_t>(k);
    view(row, 0) = static_cast<double>(std::min(merge.a, merge.b) - 1);
    view(row, 1) = static_cast<double>(std::max(merge.a, merge.b) - 1);
    view(row, 2) = merge.height;
    view(row, 3) = merge.size;
  }
  return z;
}

py::dict Chart(const FloatArray& values, const std::string& type, int subgroup, int baseline,
               double target, double sigma, double lambda) {
  const Matrix column = ToMatrix(values, "values");
  mvda::cli::ChartSettings settings;
  settings.column = "values";
  settings.type = type;
  settings.subgroup = subgroup;
  settings.baseline = baseline;
  settings.target = target;
  settings.sigma = sigma;
  settings.lambda = lambda;
  const mvda::cli::ChartResult r = mvda::cli::Chart(Table(column, {"values"}), settings);
  auto value = [](double v) -> py::object {
    return v == -99.0 ? py::object(py::none()) : py::object(py::float_(v));
  };
  auto values_of = [](const std::vector<double>& v) {
    py::array_t<double> out(static_cast<py::ssize_t>(v.size()));
    auto view = out.mutable_unchecked<1>();
    for (std::size_t i = 0; i < v.size(); ++i) {
      view(static_cast<py::ssize_t>(i)) = v[i] == -99.0 ? std::nan("") : v[i];
    }
    return out;
  };
  py::list panels;
  for (const auto& p : r.panels) {
    py::dict d;
    d["statistic"] = p.name;
    d["values"] = values_of(p.values);
    d["centre"] = value(p.centre);
    d["lcl"] = value(p.lower);
    d["ucl"] = value(p.upper);
    d["outside"] = p.outside;  // 1-based subgroups, as the tool reports them
    if (!p.extra.empty()) d[p.name == "CuSum" ? "low_sums" : "means"] = values_of(p.extra);
    panels.append(d);
  }
  py::dict out;
  out["type"] = r.type;
  out["subgroup_size"] = r.subgroup;
  out["subgroups"] = r.subgroups;
  out["baseline_subgroups"] = r.baseline;
  out["target"] = value(r.target);
  out["sigma"] = value(r.sigma);
  out["lambda"] = value(r.lambda);
  out["panels"] = panels;
  return out;
}

// ------------------------------------------------------------------------------------------------
// Diagnostics (mvda/diagnostics): T² and SPE of the training rows and of new rows, their limits,
// and the PLS figures of merit.

const Matrix& Tprim(const ModelFile& f) {
  return f.kind == ModelFile::kPCA ? *f.pca.GetTprim() : *f.pls.GetTprim();
}
const Matrix& Pprim(const ModelFile& f) {
  return f.kind == ModelFile::kPCA ? *f.pca.GetPprim() : *f.pls.GetPprim();
}
const Matrix& XResiduals(const ModelFile& f) {
  return f.kind == ModelFile::kPCA ? *f.pca.GetResiduals() : *f.pls.GetXResiduals();
}

py::array_t<double> Values(const std::vector<double>& v) {
  py::array_t<double> out(static_cast<py::ssize_t>(v.size()));
  auto view = out.mutable_unchecked<1>();
  for (std::size_t i = 0; i < v.size(); ++i) {
    view(static_cast<py::ssize_t>(i)) = v[i] == mvda::diagnostics::kMissing ? std::nan("") : v[i];
  }
  return out;
}

// T² of the scores tprim (A x N) under the spread of the model's training scores; 0 for every row
// of a model without components, which has no scores to be far out in.
std::vector<double> T2(const ModelFile& f, const Matrix& tprim) {
  if (f.Components() == 0)
    return std::vector<double>(static_cast<std::size_t>(tprim.SizeColumns()), 0.0);
  return mvda::diagnostics::HotellingT2(tprim, mvda::diagnostics::ScoreVariances(Tprim(f)));
}

// The training rows: the model file keeps the residuals the kept components leave, and SPE of a
// residual row is SPE under no components.
py::dict TrainingDiagnostics(const ModelFile& f) {
  const Matrix& e = XResiduals(f);
  py::dict out;
  out["t2"] = Values(T2(f, Tprim(f)));
  out["spe"] = Values(
      mvda::diagnostics::SPE(e, Matrix(0, e.SizeRows(), 0.0f), Matrix(0, e.SizeColumns(), 0.0f)));
  return out;
}

// New rows, scored as Predict scores them: scores, T² and SPE (NaN for a row without scores).
py::dict NewDiagnostics(const ModelFile& f, const FloatArray& x, double max_missing) {
  Matrix m = ToMatrix(x, "X");
  if (m.SizeColumns() != f.x_names.Size()) {
    throw mvda::cli::ToolError("X has " + std::to_string(m.SizeColumns()) + " columns, the model " +
                               std::to_string(f.x_names.Size()));
  }
  py::dict out;
  std::vector<double> t2, spe;
  Matrix tprim;
  {
    py::gil_scoped_release release;
    if (f.Components() > 0) {
      tprim = mvda::cli::Predict(f, "the model", Table(m, Names(f.x_names)), max_missing, "").tprim;
    } else {
      tprim = Matrix(0, m.SizeRows(), 0.0f);
    }
    t2 = T2(f, tprim);
    NCScale scale = f.x_scale;  // applying a scaling is not const
    scale.ScaleMatrix(&m, false);
    spe = mvda::diagnostics::SPE(m, tprim, Pprim(f));
  }
  // A row without scores has no T², and no SPE either.
  for (std::size_t i = 0; i < spe.size(); ++i) {
    if (t2[i] == mvda::diagnostics::kMissing) spe[i] = mvda::diagnostics::kMissing;
  }
  out["scores"] = ToArray(tprim, true);
  out["t2"] = Values(t2);
  out["spe"] = Values(spe);
  return out;
}

double T2Limit(int observations, int components, double alpha, bool new_rows) {
  return new_rows ? mvda::diagnostics::T2LimitPrediction(observations, components, alpha)
                  : mvda::diagnostics::T2LimitTraining(observations, components, alpha);
}

double SpeLimit(const std::vector<double>& training, double alpha) {
  std::vector<double> present;
  for (const double v : training)
    present.push_back(std::isnan(v) ? mvda::diagnostics::kMissing : v);
  return mvda::diagnostics::SPELimit(mvda::diagnostics::SPEMomentsOf(present), alpha);
}

py::array_t<double> Vip(const ModelFile& f) { return Values(mvda::diagnostics::VIP(f.pls)); }

// RMSECV per response from the fit's last kept component: y are the training responses in their
// own units, q2_last that component's Q2 per response.
py::array_t<double> Rmsecv(const ModelFile& f, const FloatArray& y,
                           const std::vector<double>& q2_last) {
  Matrix scaled = ToMatrix(y, "y");
  NCScale scale = f.y_scale;
  scale.ScaleMatrix(&scaled, false);
  return Values(mvda::diagnostics::RMSECV(f.pls, scaled, q2_last, f.y_scale));
}

// ------------------------------------------------------------------------------------------------
// Model file

py::bytes ModelBytes(const ModelFile& model) {
  std::ostringstream os(std::ios::binary);
  if (!StreamOut(model, os)) throw mvda::cli::ToolError("writing the model failed");
  return py::bytes(os.str());
}

std::shared_ptr<ModelFile> ModelFromBytes(const py::bytes& bytes) {
  std::istringstream is(std::string(bytes), std::ios::binary);
  auto model = std::make_shared<ModelFile>();
  if (!StreamIn(*model, is)) throw mvda::cli::ToolError("the model bytes are damaged or truncated");
  return model;
}

void SaveModel(const ModelFile& model, const std::string& path) {
  // Written beside the destination and renamed into place, as the tool does: a failed save
  // leaves no half-written model.
  mvda::cli::OutputFiles files;
  std::ostream& stream = files.Open(path);
  if (!StreamOut(model, stream)) throw mvda::cli::ToolError(path + ": writing the model failed");
  files.CommitAll();
}

// The multiplier a variable's values were scaled with and what was subtracted, in the form of
// StandardScaler: subtracted (0 when not centred) and divided by (1 when not scaled).
py::array_t<double> Subtracted(const NCScale& s) { return ToArray(s.GetMean(), 0.0); }
py::array_t<double> DividedBy(const NCScale& s) {
  py::array_t<double> out(s.Size());
  auto view = out.mutable_unchecked<1>();
  for (int j = 1; j <= s.Size(); ++j) {
    const float f = s.GetScale()[j];
    view(j - 1) = f == kMissing ? 1.0 : 1.0 / static_cast<double>(f);
  }
  return out;
}

// The tool's messages name its options; in Python the same things are arguments.
std::string PythonMessage(std::string message) {
  static const std::pair<const char*, const char*> kRenames[] = {
      {" (leave it out with --exclude)", ""},
      {"--components ", "n_components="},
      {"--method ", "method="},
      {"--scale ", "scaling="},
      {"--type ", "kind="},
      {"--subgroup ", "subgroup="},
      {"--baseline ", "baseline="},
      {"pls: name the response columns with --y", "y has no columns"},
      {"(save one with pca or pls --save)", "(save one with mvda.save)"}};
  for (const auto& [from, to] : kRenames) {
    for (std::size_t at = message.find(from); at != std::string::npos;
         at = message.find(from, at + std::string(to).size())) {
      message.replace(at, std::string(from).size(), to);
    }
  }
  return message;
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "mvda's analyses: the command-line tool's fits, prediction, clustering and charts";
  NCProgress::SetDefaultFactory(MakeProgress);
  m.def("_wait_for_workers", &WaitForWorkers,
        "Waits for the workers of stopped calls to end; run at interpreter exit");
  py::module_::import("atexit").attr("register")(m.attr("_wait_for_workers"));

  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const mvda::cli::ToolError& e) {
      PyErr_SetString(PyExc_ValueError, PythonMessage(e.what()).c_str());
    } catch (const NCError& e) {
      PyErr_SetString(PyExc_ValueError, PythonMessage(e.what()).c_str());
    }
  });

  py::class_<ModelFile, std::shared_ptr<ModelFile>>(
      m, "Model", "A fitted model as the tool's model file holds it")
      .def_property_readonly(
          "kind", [](const ModelFile& f) { return f.kind == ModelFile::kPCA ? "pca" : "pls"; })
      .def_property_readonly("x_names", [](const ModelFile& f) { return Names(f.x_names); })
      .def_property_readonly("y_names", [](const ModelFile& f) { return Names(f.y_names); })
      .def_property_readonly("scaling", [](const ModelFile& f) { return f.scaling; })
      .def_property_readonly("source", [](const ModelFile& f) { return f.source; })
      .def_property_readonly("components", &ModelFile::Components)
      .def_property_readonly("x_mean", [](const ModelFile& f) { return Subtracted(f.x_scale); })
      .def_property_readonly("x_divisor", [](const ModelFile& f) { return DividedBy(f.x_scale); })
      .def_property_readonly("y_mean", [](const ModelFile& f) { return Subtracted(f.y_scale); })
      .def_property_readonly("y_divisor", [](const ModelFile& f) { return DividedBy(f.y_scale); })
      .def_property_readonly(
          "loadings",
          [](const ModelFile& f) {
            return ToArray(f.kind == ModelFile::kPCA ? *f.pca.GetPprim() : *f.pls.GetPprim(), true);
          })
      .def_property_readonly(
          "scores",
          [](const ModelFile& f) {
            return ToArray(f.kind == ModelFile::kPCA ? *f.pca.GetTprim() : *f.pls.GetTprim(), true);
          })
      .def_property_readonly("weights",
                             [](const ModelFile& f) { return ToArray(*f.pls.GetWprim(), true); })
      .def_property_readonly("weights_star",
                             [](const ModelFile& f) { return ToArray(f.pls.GetWStarPrim(), true); })
      .def_property_readonly("y_loadings",
                             [](const ModelFile& f) { return ToArray(*f.pls.GetCprim(), true); })
      .def_property_readonly(
          "scaled_coefficients",
          [](const ModelFile& f) { return ToArray(f.pls.GetRegressionCoefficients(-1), false); })
      .def("to_bytes", &ModelBytes)
      .def_static("from_bytes", &ModelFromBytes)
      .def(py::pickle([](const ModelFile& f) { return ModelBytes(f); },
                      [](const py::bytes& b) { return ModelFromBytes(b); }));

  m.def("fit_pca", &FitPca, py::arg("x"), py::arg("names"), py::arg("components"),
        py::arg("scaling"), py::arg("groups"), py::arg("max_iter"), py::arg("threads"),
        py::arg("callback"));
  m.def("fit_pls", &FitPls, py::arg("x"), py::arg("y"), py::arg("x_names"), py::arg("y_names"),
        py::arg("components"), py::arg("scaling"), py::arg("groups"), py::arg("max_iter"),
        py::arg("threads"), py::arg("callback"));
  m.def("predict", &Predict, py::arg("model"), py::arg("x"), py::arg("max_missing") = 0.5);
  m.def("linkage", &Linkage, py::arg("x"), py::arg("method"), py::arg("scaling"), py::arg("cache"),
        py::arg("threads"), py::arg("callback"));
  m.def("control_chart", &Chart, py::arg("values"), py::arg("type"), py::arg("subgroup"),
        py::arg("baseline"), py::arg("target"), py::arg("sigma"), py::arg("lambda_"));
  m.def("training_diagnostics", &TrainingDiagnostics, py::arg("model"));
  m.def("diagnostics", &NewDiagnostics, py::arg("model"), py::arg("x"),
        py::arg("max_missing") = 0.5);
  m.def("t2_limit", &T2Limit, py::arg("observations"), py::arg("components"), py::arg("alpha"),
        py::arg("new_rows"));
  m.def("spe_limit", &SpeLimit, py::arg("training"), py::arg("alpha"));
  m.def("vip", &Vip, py::arg("model"));
  m.def("rmsecv", &Rmsecv, py::arg("model"), py::arg("y"), py::arg("q2_last"));
  m.def("save", &SaveModel, py::arg("model"), py::arg("path"));
  m.def(
      "load",
      [](const std::string& path) {
        return std::make_shared<ModelFile>(mvda::cli::LoadModel(path));
      },
      py::arg("path"));
}
