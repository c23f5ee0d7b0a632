export {Client} from "./client.mjs";
export {Reporter} from "./reporter.mjs";
export {UgsError} from "./errors.mjs";
export {countKeys, layoutNames, writeDocument} from "./document.mjs";
