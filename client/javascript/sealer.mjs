// Seals texts for the holder of one RSA private key.

import {constants, createCipheriv, createPublicKey, publicEncrypt, randomBytes} from "node:crypto";
import {readFileSync} from "node:fs";
import {UgsError, badUsage} from "./errors.mjs";

function pemText(textOrFile) {
  if (typeof textOrFile !== "string") throw badUsage("the key must be PEM text or the name of a file that holds it");
  if (textOrFile.includes("-----BEGIN")) return textOrFile; // no file name holds a PEM header
  try {
    return readFileSync(textOrFile, "latin1");
  } catch {
    throw badUsage(`cannot read the key file ${textOrFile}`);
  }
}

// Only of its own block: from a private key or a certificate Node would derive one, too.
function publicKeyOf(pem) {
  const block = /-----BEGIN PUBLIC KEY-----.*?-----END PUBLIC KEY-----/s.exec(pem);
  try {
    const key = createPublicKey(block[0]);
    if (key.asymmetricKeyType === "rsa") return key;
  } catch {
    // said below
  }
  throw badUsage("not the PEM text of an RSA public key");
}

// AES in CBC mode with PKCS #7 padding, which the server cuts off with everything after the last brace.
export function encrypt(plaintext, key, iv) {
  const aes = createCipheriv(`aes-${key.length * 8}-cbc`, key, iv);
  return Buffer.concat([aes.update(plaintext), aes.final()]);
}

export class Sealer {
  #key;

  // `publicKey` is PEM text ("BEGIN PUBLIC KEY") or the name of a file that holds it. Throws UgsError (BadUsage) if
  // the file cannot be read or the text is not that of an RSA public key.
  constructor(publicKey) {
    this.#key = publicKeyOf(pemText(publicKey));
  }

  // The base64 text of an envelope that holds `document`. Throws UgsError (CannotSeal).
  seal(document) {
    // Fresh for every text: with a used pair, equal texts would give equal ciphertexts.
    const key = randomBytes(32);
    const iv = randomBytes(16);
    const plaintext = Buffer.from(document);
    try {
      const parts = [this.#wrap(key), iv, encrypt(plaintext, key, iv)];
      const [data1, data2, data3] = parts.map((part) => part.toString("base64"));
      return Buffer.from(JSON.stringify({data1, data2, data3})).toString("base64");
    } finally {
      key.fill(0);
      plaintext.fill(0);
    }
  }

  #wrap(key) {
    try {
      return publicEncrypt({key: this.#key, padding: constants.RSA_PKCS1_PADDING}, key);
    } catch {
      throw new UgsError("CannotSeal",
                         "cannot seal the request: the RSA key is too short to wrap an AES-256 key");
    }
  }
}
