// The server's status, kept up to date by the events that `ugs page` sends.

const RETRY = 3000; // ms, when the browser gave up by itself

export const news = {
  status: null, // the newest, with `instances` as a Map by key
  heard: 0, // when it came, by this machine's clock in ms
  trouble: "", // why nothing came the last time
  hasHistory: false, // whether /history and /day are there
};

const readers = {
  whole(status) {
    status.instances = new Map(status.instances.map((instance) => [instance.key, instance]));
    return status;
  },

  change({ changed, gone, hours, ...rest }) {
    const { instances, hours: old } = news.status;
    for (const key of gone) instances.delete(key);
    for (const instance of changed) instances.set(instance.key, instance);
    const fresh = new Set(hours.map((hour) => hour.hour));
    const kept = old.filter((hour) => !fresh.has(hour.hour));
    const newest = [...hours, ...kept].sort((left, right) => right.hour - left.hour).slice(0, 48);
    return { ...news.status, ...rest, hours: newest };
  },
};

// Calls `tell` after each event, and when there is no stream.
export function follow(tell) {
  const source = new EventSource("events");
  const take = (type) => (event) => {
    news.status = readers[type](JSON.parse(event.data));
    news.heard = Date.now();
    news.trouble = "";
    tell();
  };
  source.addEventListener("whole", take("whole"));
  source.addEventListener("change", take("change"));
  source.addEventListener("trouble", (event) => {
    news.trouble = JSON.parse(event.data).error;
    tell();
  });
  source.addEventListener("history", () => (news.hasHistory = true));
  source.addEventListener("error", () => {
    news.trouble = "ugs page does not answer";
    if (source.readyState === EventSource.CLOSED) setTimeout(follow, RETRY, tell);
    tell();
  });
}
