#include "overhub/commands/drift_list.h"

#include <algorithm>
#include <unordered_map>

#include "records/secret_values.h"

Listing driftList() {
  return {"drifts",
          {{"Path", "path", Listing::Kind::text},
           {"Name", "name", Listing::Kind::text},
           {"Machine", "machine", Listing::Kind::text},
           {"Times", "times", Listing::Kind::number},
           {"First", "first", Listing::Kind::age},
           {"Last", "last", Listing::Kind::age},
           {"Found", "found", Listing::Kind::text},
           {"Corrected", "corrected", Listing::Kind::text}}};
}

void addDrifts(Listing& list, const std::vector<Client>& clients, const std::vector<DriftCount>& drifts) {
  std::unordered_map<std::int64_t, std::size_t> places;  // of the clients, by their ids
  for (std::size_t i = 0; i < clients.size(); ++i) places[clients[i].id] = i;
  std::vector<std::pair<std::size_t, const DriftCount*>> rows;
  for (const DriftCount& drift : drifts)
    if (const auto place = places.find(drift.client); place != places.end())
      rows.emplace_back(place->second, &drift);
  std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
    return std::tie(a.second->path, a.second->name, a.first) <
           std::tie(b.second->path, b.second->name, b.first);
  });
  for (const auto& [place, drift] : rows) {
    list.addRow({drift->path, drift->name, clients[place].name, drift->times, drift->first, drift->last,
                 drift->isSecret ? kHiddenSecret : drift->found,
                 drift->isSecret ? kHiddenSecret : drift->corrected});
  }
}

std::string driftText(const DriftCount& drift) {
  const std::string times = drift.times == 1 ? "once" : std::to_string(drift.times) + " times";
  return "was changed on the machine and corrected " + times +
         (drift.isSecret ? "; it is secret"
                         : ", last from \"" + drift.found + "\" to \"" + drift.corrected + "\"");
}
