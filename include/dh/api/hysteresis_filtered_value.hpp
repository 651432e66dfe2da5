#pragma once

#include <cmath>
#include <functional>

#include "typed_event_node.hpp"

namespace dh::api {

// Filtering rule, with `step` the first parameter and `drift` the second:
//  - the first value is published at once;
//  - a value at least `step` away from the published one is published at once;
//  - a value at least `drift` (but less than `step`) away is published once it has stayed that
//    far away for `persist_polls` consecutive candidates (a slow drift still gets through);
//  - anything closer is noise: it is not published and restarts the count.
// The comparison decides the class of a candidate: 2 publish now, 1 counts towards the drift
// rule, 0 noise. Pushed integer values may bring their own (wrap-around counters, say).
template <class V>
using hysteresis_compare =
    std::function<int(const V& candidate, const V& published, const V& step, const V& drift)>;

template <class V>
int default_hysteresis_compare(const V& candidate, const V& published, const V& step,
                               const V& drift) {
    const double distance =
        std::abs(static_cast<double>(candidate) - static_cast<double>(published));
    if (distance >= static_cast<double>(step)) return 2;
    if (distance >= static_cast<double>(drift)) return 1;
    return 0;
}

template <class Inner>
class hysteresis_filtered_value : public Inner {
  public:
    using value_type = typename Inner::value_type;
    static constexpr int persist_polls = 3;

    template <class... A>
    hysteresis_filtered_value(double step, double drift, hysteresis_compare<value_type> compare,
                              A&&... inner_args)
        : Inner(std::forward<A>(inner_args)...),
          step_(static_cast<value_type>(step)),
          drift_(static_cast<value_type>(drift)),
          compare_(compare ? std::move(compare) : default_hysteresis_compare<value_type>) {}

    // A filtered polled value, bound to the owner's getter.
    template <class Owner, class... B>
    static std::shared_ptr<hysteresis_filtered_value> create(dh_db& db, std::string_view path,
                                                             const std::shared_ptr<Owner>& owner,
                                                             double step, double drift,
                                                             B&&... bound) requires requires {
        typename Inner::bound_type;
    }
    {
        return register_node(db, path,
                             std::make_shared<hysteresis_filtered_value>(
                                 step, drift, nullptr, owner,
                                 typename Inner::bound_type(std::forward<B>(bound)...)));
    }

    // A filtered pushed value with its comparison function.
    template <class Owner>
    static std::shared_ptr<hysteresis_filtered_value> create(
        dh_db& db, std::string_view path, const std::shared_ptr<Owner>&, double step, double drift,
        hysteresis_compare<value_type> compare) requires(!requires {
        typename Inner::bound_type;
    }) {
        return register_node(
            db, path, std::make_shared<hysteresis_filtered_value>(step, drift, std::move(compare)));
    }

    std::pair<double, double> parameters() const {
        return {static_cast<double>(step_), static_cast<double>(drift_)};
    }

  protected:
    bool filter_accepts(const value_type& candidate,
                        const std::optional<value_type>& published) override {
        if (!published) return true;
        switch (compare_(candidate, *published, step_, drift_)) {
            case 2:
                drifting_polls_ = 0;
                return true;
            case 1:
                if (++drifting_polls_ >= persist_polls) {
                    drifting_polls_ = 0;
                    return true;
                }
                return false;
            default:
                drifting_polls_ = 0;
                return false;
        }
    }

  private:
    value_type step_;
    value_type drift_;
    hysteresis_compare<value_type> compare_;
    int drifting_polls_ = 0;  // guarded by the node's typed lock (filter_accepts runs under it)
};

}  // namespace dh::api
