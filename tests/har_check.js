// Validates an HTTP Archive with Debian's node-har-validator, which no one
// here wrote: node har_check.js FILE; exit 0 when valid.
const validate = require("har-validator");
const har = JSON.parse(require("fs").readFileSync(process.argv[2], "utf8"));
validate.har(har).then(
  () => process.exit(0),
  (e) => {
    console.error(JSON.stringify(e.errors || e.message));
    process.exit(1);
  });
