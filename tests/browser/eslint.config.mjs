// One style for all JavaScript, which script/test checks. To correct the files, from the top folder:
// `tests/browser/node_modules/.bin/eslint --config tests/browser/eslint.config.mjs --fix .`
import js from "@eslint/js";
import stylistic from "@stylistic/eslint-plugin";
import globals from "globals";

const style = Object.fromEntries(Object.entries({
  "arrow-parens": "always",
  "arrow-spacing": true,
  "block-spacing": "always",
  "brace-style": ["1tbs", { allowSingleLine: true }],
  "comma-spacing": true,
  "comma-style": "last",
  "eol-last": "always",
  "function-call-spacing": "never",
  "indent": [2, { SwitchCase: 1, ignoredNodes: ["TemplateLiteral *", "ConditionalExpression"] }],
  "key-spacing": true,
  "keyword-spacing": true,
  "max-len": [120, { ignoreUrls: true, ignoreStrings: true, ignoreTemplateLiterals: true }],
  "no-multiple-empty-lines": { max: 1 },
  "no-tabs": true,
  "no-trailing-spaces": true,
  "object-curly-spacing": "always",
  "operator-linebreak": "after",
  "quotes": ["double", { avoidEscape: true }],
  "semi": "always",
  "space-before-blocks": "always",
  "space-infix-ops": true,
  "spaced-comment": "always",
}).map(([rule, options]) => [`@stylistic/${rule}`, options === true ? "error" : ["error"].concat(options)]));

export default [
  { ignores: ["build/**", "npm/mirado-desk/program/**", "**/node_modules/**", "**/mirado.classic.js", "**/*.ts"] },
  js.configs.recommended,
  {
    plugins: { "@stylistic": stylistic },
    linterOptions: { reportUnusedDisableDirectives: "error" },
    languageOptions: {
      ecmaVersion: 2022,
      sourceType: "module",
      // The last three are what classic scripts define for each other.
      globals: { ...globals.browser, ...globals.node, mirado: "readonly", Film: "writable", clientSuite: "writable" },
    },
    rules: {
      ...style,
      "no-unused-vars": ["error", { caughtErrors: "none", varsIgnorePattern: "^(Film|clientSuite)$" }],
      "no-redeclare": ["error", { builtinGlobals: false }],
      "no-prototype-builtins": "off",  // Object.hasOwn is too new for a set's engine
    },
  },
  { files: ["tests/page/client_suite.js"], rules: { "no-global-assign": "off" } },  // it replaces the timers
];
