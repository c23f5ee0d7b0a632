// Why something was not counted. `kind` is for programs, the message for people; `code` is the server's, if it answered.
export class UgsError extends Error {
  constructor(kind, text, code) {
    super(text);
    this.name = "UgsError";
    this.kind = kind;
    this.code = code;
  }
}

export const badUsage = (text) => new UgsError("BadUsage", text);
