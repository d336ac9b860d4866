// Checks the arguments of the package's functions, so that a mistake in a test is reported at once.
const short = (name) => name.replace(/^[A-Z]+_KEY_/, "");

/** The setting among `settings` with this name or path. Throws a TypeError that lists all settings if there is none. */
export function findSetting(settings, name) {
  const found = settings.find((one) => [one.name, short(one.name), one.path].includes(name));
  if (found) return found;
  const names = settings.map((one) => short(one.name)).join(", ");
  throw new TypeError(`mirado-desk: there is no setting ${name}; the settings are: ${names}`);
}

/** Throws a TypeError if `setting` has another type than `value`. */
export function checkValue(setting, value) {
  const type = setting.type === "bool" ? "boolean" : "number";
  if (typeof value === type) return;
  const right = type === "boolean" ? "true or false" : "an integer";
  throw new TypeError(`mirado-desk: ${short(setting.name)} takes ${right}, not ${JSON.stringify(value)}`);
}

/** Throws a TypeError if no fault of `call`, as the desk describes it, can have this path. */
export function checkPath(call, path) {
  if (call.paths?.includes(path)) return;
  const right = call.path ? `its path is ${call.path}: ${call.paths.join(", ")}` : "it has no path";
  throw new TypeError(`mirado-desk: ${path} is not a path of ${call.name}; ${right}`);
}

/** Throws a TypeError if `options` has a member that is not in `names`. */
export function refuseUnknown(call, options, names) {
  const unknown = Object.keys(options).find((name) => !names.includes(name));
  if (!unknown) return;
  throw new TypeError(`mirado-desk: ${call} has no option ${unknown}; its options are: ${names.join(", ")}`);
}

/** Throws a TypeError if `fields` is not an object with fields of a message. `timeout` is an option, not a field. */
export function checkFields(fields, options, example) {
  if (Object(fields) === fields && (options || !("timeout" in fields))) return;
  throw new TypeError(`mirado-desk: write the fields of the message and then the options: ${example}`);
}
