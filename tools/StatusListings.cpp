#include "StatusListings.h"

#include <algorithm>

#include "ReportLayouts.h"
#include "StatusChecks.h"

std::vector<std::string> FeatureNames() {
  std::vector<std::string> names;
  for (const ugs::Layout& layout : ugs::kLayouts) {
    for (const ugs::CountField& field : layout.addedCounts) names.emplace_back(field.key);
  }
  return names;
}

void SortInstances(std::vector<StatusInstance>& instances, const std::string& order) {
  const auto sortBy = [&](auto rank) {
    // Equal ones stay in the server's order, so that they do not jump from one look to the next.
    std::stable_sort(instances.begin(), instances.end(),
                     [&](const StatusInstance& a, const StatusInstance& b) { return rank(a) < rank(b); });
  };
  if (order == "identity") {
    sortBy([](const StatusInstance& instance) -> const std::string& { return instance->identity; });
  } else if (order == "age") {
    sortBy([](const StatusInstance& instance) { return instance->last; });
  } else if (order == "cameras") {
    sortBy([](const StatusInstance& instance) { return -instance->camerasCount; });
  } else {
    sortBy([&](const StatusInstance& instance) { return -CountOf(instance->counts, order); });
  }
}

namespace {

std::vector<ColumnOf<StatusInstance>> InstanceColumns(std::int64_t now) {
  using Row = StatusInstance;
  return {
      {{"identity", "identity"},
       [](const Row& row) {
         return row->identity;
       }},
      {{"last", ""},
       [](const Row& row) {
         return Time{row->last};
       }},
      {{"age", "age"},
       [now](const Row& row) {
         return Age{std::max<std::int64_t>(now - row->last, 0)};
       }},
      {{"state", "state"},
       [](const Row& row) {
         return row->state;
       }},
      {{"flags", "flags"},
       [](const Row& row) {
         return row->flags;
       }},
      {{"cameras_count", "cameras"},
       [](const Row& row) {
         return row->camerasCount;
       }},
      {{"address", "address"},
       [](const Row& row) {
         return row->address;
       }},
      {{"container", "container"},
       [](const Row& row) {
         return Digest{row->container};
       }},
      {{"counts", "in use"},
       [](const Row& row) {
         return row->counts;
       }},
      {{"key", ""},
       [](const Row& row) {
         return row->key;
       }},
      {{"layout", ""},
       [](const Row& row) {
         return row->layout;
       }},
      {{"first", ""},
       [](const Row& row) {
         return Time{row->first};
       }},
      {{"reports", ""},
       [](const Row& row) {
         return row->reports;
       }},
      {{"cameras", ""},
       [](const Row& row) {
         return row->cameras;
       }},
  };
}

}  // namespace

Listing ListInstances(const std::vector<StatusInstance>& instances, std::int64_t now,
                      const std::string& feature) {
  using Row = StatusInstance;
  std::vector<ColumnOf<Row>> columns = InstanceColumns(now);
  // Else these look the same.
  if (std::ranges::any_of(instances, [](const Row& row) { return row->Has("same_identity"); })) {
    columns.insert(columns.begin() + 1, {{"", "key"}, [](const Row& row) {
                                           return Digest{row->Has("same_identity") ? row->key : ""};
                                         }});
    columns.push_back({{"", "first camera"}, [](const Row& row) {
                         return row->Has("same_identity") && !row->cameras.empty() ? row->cameras.front()
                                                                                   : "";
                       }});
  }
  if (!feature.empty()) {
    columns.insert(columns.begin() + 1, {{feature, feature}, [feature](const Row& row) {
                                           return CountOf(row->counts, feature);
                                         }});
  }
  return MakeListing(columns, instances);
}

Listing ListLosses(std::vector<StatusLoss> losses) {
  std::stable_partition(losses.begin(), losses.end(),
                        [](const StatusLoss& loss) { return loss.returned == 0; });
  using Row = StatusLoss;
  return MakeListing<Row>(
      {
          {{"identity", "identity"},
           [](const Row& row) {
             return row.identity;
           }},
          {{"last", "last report"},
           [](const Row& row) {
             return Time{row.last};
           }},
          {{"lost", "lost"},
           [](const Row& row) {
             return Time{row.lost};
           }},
          {{"reason", "reason"},
           [](const Row& row) {
             return row.reason;
           }},
          {{"returned", "returned"},
           [](const Row& row) {
             return Time{row.returned};
           }},
          {{"address", "address"},
           [](const Row& row) {
             return row.address;
           }},
          {{"container", "container"},
           [](const Row& row) {
             return Digest{row.container};
           }},
          {{"counts", "in use"},
           [](const Row& row) {
             return row.counts;
           }},
          {{"key", ""},
           [](const Row& row) {
             return row.key;
           }},
      },
      losses);
}

Listing ListRefusals(const std::vector<StatusRefusal>& refusals) {
  using Row = StatusRefusal;
  return MakeListing<Row>(
      {
          {{"address", "address"},
           [](const Row& row) {
             return row.address;
           }},
          {{"identity", "identity"},
           [](const Row& row) {
             return row.identity;
           }},
          {{"code", "code"},
           [](const Row& row) {
             return row.code;
           }},
          {{"count", "count"},
           [](const Row& row) {
             return row.count;
           }},
          {{"first", "first"},
           [](const Row& row) {
             return Time{row.first};
           }},
          {{"last", "last"},
           [](const Row& row) {
             return Time{row.last};
           }},
          {{"meaning", "meaning"},
           [](const Row& row) {
             return MeaningOfRefusal(row.code);
           }},
      },
      refusals);
}
