#pragma once

// The command-line options of the confirmation rules, shared by zonaris-service and the service
// that zonaris-sim embeds.
#include <string>

#include <CLI/CLI.hpp>

#include "zonaris/service/event_rules.hpp"

namespace zonaris::service_tool {

/// Adds --confirm and the robust rules' parameters to `app`, writing into `rule` and `params`
/// (their values at the call are the defaults shown).
inline void addConfirmOptions(CLI::App& app, ConfirmRule& rule, RobustParams& params) {
  app.add_option_function<std::string>(
         "--confirm",
         [&rule](const std::string& word) {
           rule = word == "exact" ? ConfirmRule::Exact : ConfirmRule::Robust;
         },
         "how the service confirms crossings: robust (noise, outliers and coarse fixes confirm "
         "nothing) or exact (one observation decides)")
      ->check(CLI::IsMember({"exact", "robust"}))
      ->default_str(rule == ConfirmRule::Exact ? "exact" : "robust");
  app.add_option("--confirm-max-speed", params.maxSpeed,
                 "robust: m/s from the last usable observation beyond which one is an outlier")
      ->capture_default_str()
      ->check(CLI::Range(0.1, 1e6));
  app.add_option("--confirm-max-accuracy", params.maxAccuracy,
                 "robust: accuracy radius, metres, beyond which an observation is too coarse")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1e7));
  app.add_option("--confirm-after", params.confirmAfter,
                 "robust: seconds from the first observation of a crossing to the one that "
                 "confirms it")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 86400.0));
  app.add_option("--confirm-expiry", params.pendingExpiry,
                 "robust: seconds after which a pending crossing lapses without a next "
                 "observation on its side")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 86400.0));
  app.add_option("--confirm-observations", params.observations,
                 "robust: consecutive observations on the new side that confirm a crossing "
                 "(an entry whose accuracy disc lies inside needs one)")
      ->capture_default_str()
      ->check(CLI::Range(1, 100));
  app.add_option("--confirm-entry-margin", params.entryMargin,
                 "robust: metres inside the boundary an observation lies to count towards an "
                 "entry (at most its accuracy radius)")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 100000.0));
  app.add_option("--confirm-exit-margin", params.exitMargin,
                 "robust: metres outside the boundary an observation lies to count towards an "
                 "exit (at most its accuracy radius)")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 100000.0));
  app.add_option("--confirm-unsettled-window", params.unsettledWindow,
                 "robust: seconds within which two observations outside that were given up make "
                 "the next exit need --confirm-unsettled-observations (0: never)")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 86400.0));
  app.add_option("--confirm-unsettled-observations", params.unsettledObservations,
                 "robust: consecutive observations outside that confirm an exit within the "
                 "unsettled window")
      ->capture_default_str()
      ->check(CLI::Range(1, 100));
  app.add_option("--confirm-near-margin", params.nearMargin,
                 "robust: metres outside the boundary (at most the accuracy radius) from which an "
                 "observation short of the exit margin still counts, away from an unsettled edge")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 100000.0));
  app.add_option("--confirm-near-observations", params.nearObservations,
                 "robust: consecutive observations outside that confirm an exit which counted "
                 "one short of the exit margin")
      ->capture_default_str()
      ->check(CLI::Range(1, 100));
  app.add_option("--confirm-beacon-misses", params.beaconMisses,
                 "robust: consecutive observations without a beacon that confirm its exit")
      ->capture_default_str()
      ->check(CLI::Range(1, 100));
}

}  // namespace zonaris::service_tool
