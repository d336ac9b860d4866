const short = (name) => name.replace(/^[A-Z]+_KEY_/, "");

/** The setting among `settings` with this name or path. Throws a TypeError that lists all where there is none. */
export function findSetting(settings, name) {
  const found = settings.find((one) => [one.name, short(one.name), one.path].includes(name));
  if (found) return found;
  const names = settings.map((one) => short(one.name)).join(", ");
  throw new TypeError(`mirado-desk: there is no setting ${name}, but there are ${names}`);
}

/** Throws a TypeError where `options` has one that `call` does not know. */
export function refuseUnknown(call, options, names) {
  const unknown = Object.keys(options).find((name) => !names.includes(name));
  if (unknown) throw new TypeError(`mirado-desk: ${call} has no option ${unknown}, but ${names.join(", ")}`);
}

/** Throws a TypeError where `fields` are not those of a message. No message has a timeout, so that is an option. */
export function checkFields(fields, options, example) {
  if (Object(fields) === fields && (options || !("timeout" in fields))) return;
  throw new TypeError(`mirado-desk: write the fields of the message and then the options: ${example}`);
}
