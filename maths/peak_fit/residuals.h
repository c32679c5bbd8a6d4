// maths/peak_fit: the residuals of a peak fit as MINPACK asks for them, and the parameters that it varies.
// Numbers only: no session, no handle.
#pragma once

#include "maths/peak_fit/model.h"

#include <array>
#include <span>
#include <vector>

namespace kestrel {

// What a parameter stands for.
struct peak_parameter {
    enum class kind { posn, height, sigma, lor_frac, lor_ratio };
    kind what = kind::posn;
    std::size_t peak = 0;
};

// The parameters of a pass: position, height (unless tied) and sigma of each peak; with a Lorentzian its
// fraction and the ratio of its half width to sigma, both common to all peaks. Peaks that stand too close to
// be told apart have one position, in proportion, and one sigma: those of their leader.
struct peak_vector {
    std::size_t num_peaks = 0;
    std::size_t main = 0;
    std::array<double, peak_fit_max_peaks> tie{}; // height by the previous peak's; 0: free
    bool lorentzian = false;
    std::vector<peak_parameter> parameters;
    std::array<double, peak_fit_max_peaks> posn_middle{}, posn_reach{}; // positions may move so far
    std::array<int, peak_fit_max_peaks> leader{};          // whose position and sigma it follows, or -1
    std::array<double, peak_fit_max_peaks> leader_ratio{}; // its position by the leader's
    // The distance from the next leader below may differ from the expected one by `gap_reach`; none: -1.
    std::array<int, peak_fit_max_peaks> below{};
    std::array<double, peak_fit_max_peaks> gap{}, gap_reach{};
    double sigma_most = 0.0;

    // Every range from where the peaks are expected and how wide they look, and the list of parameters.
    void set_ranges(std::span<const peak_fit_peak_t> seeds, double fwhm, std::size_t channels);
    std::vector<double> pack(std::span<const peak_fit_peak_t> peaks) const;
    void unpack(const double *x, std::span<peak_fit_peak_t> peaks) const;
    // By how much, relative to its usual size, parameter `i` lies outside its range; 0 inside.
    double outside(const double *x, std::size_t i) const;

  private:
    std::array<std::size_t, peak_fit_max_peaks> posn_at_{}, sigma_at_{}; // places in x
    void list_parameters();
    void find_leaders(std::span<const peak_fit_peak_t> seeds, double fwhm);
    void follow(std::span<const std::size_t> group, std::span<const peak_fit_peak_t> seeds);
};

// Profiles of one peak, kept while their position and width stay: of a Jacobian's calls each changes one
// number only.
class peak_profile {
  public:
    enum class shape { gauss, lorentz };
    // Values at channels x1 .. x1 + count - 1, and the range outside of which they are nothing.
    struct values {
        double posn = 0.0, width = 0.0;
        std::size_t from = 0, to = 0;
        std::vector<double> at;
    };
    // Makes room for regions of that many channels, and forgets what it knew.
    void prepare(std::size_t count);
    const values &get(shape s, double posn, double width, int x1, std::size_t count) noexcept;

  private:
    std::array<values, 2> slot_;
    std::size_t newest_ = 0;
};

// What the runs of the solver on one spectrum came to: a further one that cannot beat them is left early.
class peak_rivals {
  public:
    void forget() { ends_.clear(); }
    // `at_noise`: what is left of the spectrum is no more than its own noise, of enough counts to tell.
    void add(std::size_t main, const std::vector<double> &x, double residual, bool at_noise);
    void begin() { steps_ = 0; }
    // A run stands at x, with that residual. True when another has left nothing but noise by the same
    // parameters, when it is about to end where another did, or when its last steps brought it so little nearer
    // to the best that it will not get there.
    bool cannot_be_beaten(const peak_vector &vector, const double *x, double residual, std::size_t channels);

  private:
    struct end {
        std::size_t main;
        std::vector<double> x;
        double residual;
        bool at_noise;
    };
    std::vector<end> ends_;
    bool is_settled(const peak_vector &vector, std::size_t channels) const;
    static constexpr std::size_t remembered = 4;
    std::size_t steps_ = 0;
    std::array<double, remembered> reached_{}; // in the last steps
    static bool is_near(const peak_vector &vector, const double *x, const end &other);
};

inline constexpr int peak_fit_left_early = -2; // minimise() of a run that cannot win; -1: it was stopped

// Everything that one solver call works on.
struct peak_residuals {
    int x1 = 0;
    std::span<const double> data; // the region
    const peak_vector *vector = nullptr;
    double wall = 0.0; // residual of a parameter that is outside its range by its usual size
    int calls = 0;
    bool (*stopped)(const void *user) = nullptr; // asked at every call: an interrupt ends the solver
    const void *user = nullptr;
    peak_rivals rivals;
    std::array<peak_profile, peak_fit_max_peaks> gauss, lorentz;

    void set_region(std::span<const double> spectrum, int first, int last);
    std::size_t count() const { return data.size() + vector->parameters.size(); }
    // Data minus model of each channel, then one residual a parameter: 0 while it is in its range.
    void evaluate(const double *x, double *residual) noexcept;
    // True when the run, at x, is to be left.
    bool cannot_win(const double *x) {
        return rivals.cannot_be_beaten(*vector, x, last_residual, data.size());
    }
    double last_residual = 0.0; // of the last step that was tried
    int last_flag = 0;          // what MINPACK asked for last
    // Room for `evaluate` with the present vector and region; to be called before it.
    void prepare();
    // Levenberg-Marquardt (J. J. More, B. S. Garbow & K. E. Hillstrom, User Guide for MINPACK-1, ANL-80-74):
    // improves x until the tolerance is met. MINPACK's info; the residuals at x are left in `residual`.
    int minimise(std::vector<double> &x, double tolerance, std::vector<double> &residual);

  private:
    std::vector<int> integers_;
    std::vector<double> work_;
};

double peak_fit_machine_precision(); // as MINPACK has it

} // namespace kestrel
